#include "devsim/FrameReader.h"

#include <cstring>

namespace ferrolt::devsim {
namespace {

constexpr char kWriteFrame = 'W';
constexpr size_t kWriteFrameSize = 1 + sizeof(Block);

}  // namespace

void FrameReader::Append(const char* bytes, size_t count) {
  // What was taken goes before more comes, so the buffer holds at most one
  // partial frame beside the new bytes.
  pending_.erase(0, used_);
  used_ = 0;
  pending_.append(bytes, count);
}

FrameReader::Next FrameReader::Take(Block& block) {
  if (used_ == pending_.size()) return Next::NeedMore;
  if (pending_[used_] != kWriteFrame) return Next::BadFrame;
  if (pending_.size() - used_ < kWriteFrameSize) return Next::NeedMore;
  std::memcpy(block.data(), pending_.data() + used_ + 1, block.size());
  used_ += kWriteFrameSize;
  return Next::Block;
}

}  // namespace ferrolt::devsim
