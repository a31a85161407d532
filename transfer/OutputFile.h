// The local file a download writes: created (or emptied) before the request
// goes out, one unbuffered write per data packet at its end, and emptied again
// when a log download starts over.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>

namespace ferrolt {

class OutputFile {
 public:
  OutputFile() = default;
  ~OutputFile();
  OutputFile(const OutputFile&) = delete;
  OutputFile& operator=(const OutputFile&) = delete;

  // Creates the file, replacing an existing one by an empty one.
  bool Create(const std::string& path);
  // Writes the bytes at the file's end; nothing is buffered in between.
  bool Append(const uint8_t* data, size_t count);
  // Cuts the file back to empty; the next Append starts at its beginning.
  bool Restart();
  void Close();

 private:
  std::string path_;
  std::FILE* file_ = nullptr;
};

}  // namespace ferrolt
