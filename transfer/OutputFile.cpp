#include "transfer/OutputFile.h"

namespace ferrolt {

namespace {

// Unbuffered, so every packet reaches the file with its own write and a run
// that ends abruptly keeps what had arrived.
void MakeUnbuffered(std::FILE* file) { std::setvbuf(file, nullptr, _IONBF, 0); }

}  // namespace

OutputFile::~OutputFile() { Close(); }

bool OutputFile::Create(const std::string& path) {
  Close();
  file_ = std::fopen(path.c_str(), "wb");
  if (file_ == nullptr) return false;
  path_ = path;
  MakeUnbuffered(file_);
  return true;
}

bool OutputFile::Append(const uint8_t* data, size_t count) {
  if (file_ == nullptr) return false;
  if (count == 0) return true;
  return std::fwrite(data, 1, count, file_) == count;
}

bool OutputFile::Restart() {
  if (file_ == nullptr) return false;
  // Reopening for writing truncates, on every platform the C library serves.
  file_ = std::freopen(path_.c_str(), "wb", file_);
  if (file_ == nullptr) return false;
  MakeUnbuffered(file_);
  return true;
}

void OutputFile::Close() {
  if (file_ != nullptr) std::fclose(file_);
  file_ = nullptr;
}

}  // namespace ferrolt
