// Feeds arbitrary bytes, as a host would send them on the emulator link, to
// the device's frame reader, and every whole block it yields to the device.
#include <algorithm>
#include <cstddef>
#include <cstdint>

#include "devsim/FrameReader.h"
#include "tests/fuzz/DevsimRun.h"

namespace {

// Keeps one run short.
constexpr size_t kMaxBytes = 64 * 65;
// Pieces the bytes arrive in, as a socket may split them.
constexpr size_t kPieceSize = 97;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using ferrolt::devsim::FrameReader;
  ferrolt::fuzz::DevsimRun run;
  FrameReader frames;
  ferrolt::devsim::Block block;
  for (size_t offset = 0; offset < std::min(size, kMaxBytes); offset += kPieceSize) {
    frames.Append(reinterpret_cast<const char*>(data + offset), std::min(kPieceSize, size - offset));
    for (FrameReader::Next next; (next = frames.Take(block)) != FrameReader::Next::NeedMore;) {
      if (next == FrameReader::Next::BadFrame) return 0;  // the link would close here
      run.Feed(block);
    }
  }
  run.Settle();
  return 0;
}
