#include "tests/windows/WindowsProcess.h"

#include <windows.h>

#include <atomic>
#include <thread>

namespace ferrolt::test {
namespace {

constexpr DWORD kReadChunk = 4096;

// Quoted the way the C runtime splits a command line; the tests' arguments
// hold no quotes of their own.
std::string CommandLine(const std::string& program, const std::vector<std::string>& args) {
  std::string line = "\"" + program + "\"";
  for (const std::string& arg : args) line += " \"" + arg + "\"";
  return line;
}

// A pipe whose write end the child inherits.
bool ChildPipe(HANDLE& readEnd, HANDLE& writeEnd) {
  SECURITY_ATTRIBUTES inherited{sizeof(SECURITY_ATTRIBUTES), nullptr, TRUE};
  if (!CreatePipe(&readEnd, &writeEnd, &inherited, 0)) return false;
  SetHandleInformation(readEnd, HANDLE_FLAG_INHERIT, 0);
  return true;
}

// Reads the pipe to its end into text, on a thread of its own: the child may
// fill one pipe while the other is read.
std::thread Drain(HANDLE readEnd, std::string& text) {
  return std::thread([readEnd, &text] {
    char chunk[kReadChunk];
    DWORD count = 0;
    while (ReadFile(readEnd, chunk, sizeof chunk, &count, nullptr) && count > 0) text.append(chunk, count);
  });
}

std::string FullPath(const std::filesystem::path& path) {
  char full[MAX_PATH] = {};
  GetFullPathNameA(path.string().c_str(), sizeof full, full, nullptr);
  return full;
}

}  // namespace

ChildResult RunChild(const std::filesystem::path& program, const std::vector<std::string>& args,
                     const std::filesystem::path& workingDirectory, std::chrono::milliseconds timeout) {
  ChildResult result;
  SECURITY_ATTRIBUTES inherited{sizeof(SECURITY_ATTRIBUTES), nullptr, TRUE};
  HANDLE readEnd = nullptr;
  HANDLE writeEnd = nullptr;
  HANDLE errReadEnd = nullptr;
  HANDLE errWriteEnd = nullptr;
  if (!ChildPipe(readEnd, writeEnd)) return result;
  if (!ChildPipe(errReadEnd, errWriteEnd)) {
    CloseHandle(readEnd);
    CloseHandle(writeEnd);
    return result;
  }
  HANDLE input =
      CreateFileA("NUL", GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, &inherited, OPEN_EXISTING, 0, nullptr);

  STARTUPINFOA startup{};
  startup.cb = sizeof startup;
  startup.dwFlags = STARTF_USESTDHANDLES;
  startup.hStdInput = input;
  startup.hStdOutput = writeEnd;
  startup.hStdError = errWriteEnd;
  PROCESS_INFORMATION process{};
  const std::string application = FullPath(program);
  std::string line = CommandLine(application, args);
  const std::string directory = FullPath(workingDirectory);
  const bool started = CreateProcessA(application.c_str(), line.data(), nullptr, nullptr, TRUE, 0, nullptr,
                                      directory.c_str(), &startup, &process) != FALSE;
  CloseHandle(writeEnd);
  CloseHandle(errWriteEnd);
  CloseHandle(input);
  if (!started) {
    result.exitCode = GetLastError();
    CloseHandle(readEnd);
    CloseHandle(errReadEnd);
    return result;
  }

  std::thread reader = Drain(readEnd, result.out);
  std::thread errReader = Drain(errReadEnd, result.err);
  if (WaitForSingleObject(process.hProcess, static_cast<DWORD>(timeout.count())) != WAIT_OBJECT_0) {
    result.timedOut = true;
    TerminateProcess(process.hProcess, 1);
    WaitForSingleObject(process.hProcess, INFINITE);
  }
  reader.join();
  errReader.join();
  GetExitCodeProcess(process.hProcess, &result.exitCode);
  CloseHandle(process.hProcess);
  CloseHandle(process.hThread);
  CloseHandle(readEnd);
  CloseHandle(errReadEnd);
  return result;
}

WindowsTempDir::WindowsTempDir() {
  static std::atomic<int> counter{0};
  path_ = std::filesystem::temp_directory_path() /
          ("ferrolt-test-" + std::to_string(GetCurrentProcessId()) + "-" + std::to_string(counter.fetch_add(1)));
  std::filesystem::create_directories(path_);
}

WindowsTempDir::~WindowsTempDir() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

}  // namespace ferrolt::test
