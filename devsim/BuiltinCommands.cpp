#include "devsim/BuiltinCommands.h"

#include <algorithm>
#include <cstring>
#include <fstream>
#include <functional>
#include <map>
#include <system_error>
#include <vector>

#include "devsim/RootPath.h"

namespace ferrolt::devsim {
namespace {

namespace fs = std::filesystem;
using Words = std::vector<std::string>;

// A command's output is held whole until the host has read it: a long cat
// stops here, marked.
constexpr size_t kMaxOutputBytes = size_t{4} << 20;
constexpr char kTruncatedText[] = "\n[output truncated]\n";
// What uname tells, in its field order.
constexpr const char* kSystemName = "Linux";
constexpr const char* kNodeName = "device";
constexpr const char* kRelease = "5.10.0";
constexpr const char* kMachine = "armv7l";

class Output {
 public:
  void Add(const std::string& text) {
    if (full_) return;
    const size_t room = kMaxOutputBytes - text_.size();
    text_.append(text, 0, std::min(room, text.size()));
    if (text.size() > room) Truncate();
  }
  size_t Room() const { return full_ ? 0 : kMaxOutputBytes - text_.size(); }
  void Truncate() {
    if (!full_) text_ += kTruncatedText;
    full_ = true;
  }
  std::string& Text() { return text_; }

 private:
  std::string text_;
  bool full_ = false;
};

// Commands split at ';' and line breaks, words at blanks, quotes kept whole.
std::vector<Words> Parse(const std::string& line) {
  std::vector<Words> commands(1);
  std::string word;
  bool inWord = false;
  char quote = 0;
  const auto endWord = [&] {
    if (inWord) commands.back().push_back(word);
    word.clear();
    inWord = false;
  };
  for (const char c : line) {
    if (quote != 0) {
      if (c == quote) quote = 0;
      else word += c;
    } else if (c == '\'' || c == '"') {
      quote = c;
      inWord = true;
    } else if (c == ';' || c == '\n') {
      endWord();
      commands.emplace_back();
    } else if (c == ' ' || c == '\t' || c == '\r') {
      endWord();
    } else {
      word += c;
      inWord = true;
    }
  }
  endWord();
  return commands;
}

// Options first ("-la"), then the operands; false on a letter not in allowed.
bool SplitOptions(const Words& args, const std::string& allowed, std::string& flags, Words& operands,
                  Output& out, const std::string& name) {
  size_t i = 1;
  for (; i < args.size() && args[i].size() > 1 && args[i][0] == '-'; ++i) {
    for (const char letter : args[i].substr(1)) {
      if (allowed.find(letter) == std::string::npos) {
        out.Add(name + ": invalid option -- '" + letter + "'\n");
        return false;
      }
      flags += letter;
    }
  }
  operands.assign(args.begin() + static_cast<std::ptrdiff_t>(i), args.end());
  return true;
}

void Echo(const Words& args, const fs::path&, Output& out) {
  const bool newline = args.size() < 2 || args[1] != "-n";
  const size_t first = newline ? 1 : 2;
  std::string text;
  for (size_t i = first; i < args.size(); ++i) text += (i > first ? " " : "") + args[i];
  out.Add(text + (newline ? "\n" : ""));
}

void Pwd(const Words&, const fs::path&, Output& out) { out.Add("/\n"); }

void Uname(const Words& args, const fs::path&, Output& out) {
  std::string flags;
  Words operands;
  if (!SplitOptions(args, "asnrm", flags, operands, out, "uname")) return;
  if (flags.empty()) flags = "s";
  const bool all = flags.find('a') != std::string::npos;
  std::string text;
  for (const auto& [letter, field] : {std::pair{'s', kSystemName}, {'n', kNodeName}, {'r', kRelease}, {'m', kMachine}}) {
    if (all || flags.find(letter) != std::string::npos) text += (text.empty() ? "" : " ") + std::string(field);
  }
  out.Add(text + "\n");
}

void Ls(const Words& args, const fs::path& root, Output& out) {
  std::string flags;
  Words operands;
  if (!SplitOptions(args, "a1", flags, operands, out, "ls")) return;
  const bool hidden = flags.find('a') != std::string::npos;
  if (operands.empty()) operands.push_back("/");
  for (size_t i = 0; i < operands.size(); ++i) {
    const std::string& name = operands[i];
    const fs::path path = ResolveInRoot(root, name);
    std::error_code error;
    if (path.empty() || !fs::exists(path, error)) {
      out.Add("ls: cannot access '" + name + "': No such file or directory\n");
      continue;
    }
    if (!fs::is_directory(path, error)) {
      out.Add(name + "\n");
      continue;
    }
    std::vector<std::string> entries;
    for (fs::directory_iterator it(path, error), end; !error && it != end; it.increment(error)) {
      const std::string entry = it->path().filename().string();
      if (hidden || entry[0] != '.') entries.push_back(entry);
    }
    std::sort(entries.begin(), entries.end());
    if (operands.size() > 1) out.Add((i > 0 ? "\n" : "") + name + ":\n");
    for (const std::string& entry : entries) out.Add(entry + "\n");
  }
}

void Cat(const Words& args, const fs::path& root, Output& out) {
  for (size_t i = 1; i < args.size(); ++i) {
    const std::string& name = args[i];
    const fs::path path = ResolveInRoot(root, name);
    std::error_code error;
    // Only regular files: a fifo or a device node could keep the read waiting.
    if (path.empty() || !fs::exists(path, error)) {
      out.Add("cat: " + name + ": No such file or directory\n");
    } else if (fs::is_directory(path, error)) {
      out.Add("cat: " + name + ": Is a directory\n");
    } else if (!fs::is_regular_file(path, error)) {
      out.Add("cat: " + name + ": Not a regular file\n");
    } else {
      std::ifstream in(path, std::ios::binary);
      std::string bytes(std::min<uintmax_t>(fs::file_size(path, error), out.Room() + 1), '\0');
      in.read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
      bytes.resize(static_cast<size_t>(in.gcount()));
      out.Add(bytes);
    }
  }
}

using Builtin = std::function<void(const Words&, const fs::path&, Output&)>;

const std::map<std::string, Builtin>& Builtins() {
  static const std::map<std::string, Builtin> builtins = {
      {"echo", Echo}, {"pwd", Pwd}, {"uname", Uname}, {"ls", Ls}, {"cat", Cat}};
  return builtins;
}

// Output already made, handed out in pieces as the host reads it.
class BuiltinOutput final : public CliCommand {
 public:
  explicit BuiltinOutput(std::string text) : text_(std::move(text)) {}

  ReadResult Read(char* buffer, size_t capacity, size_t& count) override {
    count = std::min(capacity, text_.size() - offset_);
    if (count == 0) return ReadResult::End;
    std::memcpy(buffer, text_.data() + offset_, count);
    offset_ += count;
    return ReadResult::Data;
  }
  bool Exited() override { return true; }
  void Kill() override { offset_ = text_.size(); }

 private:
  std::string text_;
  size_t offset_ = 0;
};

}  // namespace

std::unique_ptr<CliCommand> RunBuiltinCommands(const std::string& line, const fs::path& root) {
  Output out;
  for (const Words& command : Parse(line)) {
    if (command.empty()) continue;
    const auto builtin = Builtins().find(command[0]);
    if (builtin == Builtins().end()) {
      out.Add("sh: " + command[0] + ": not found\n");
    } else {
      builtin->second(command, root, out);
    }
  }
  return std::make_unique<BuiltinOutput>(std::move(out.Text()));
}

}  // namespace ferrolt::devsim
