// Feeds arbitrary bytes, 64 at a time, through everything that reads what
// the device sends: the field readers, the text and CRC checks, and a whole
// response-reader run over an in-memory device.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "link/DeviceIds.h"
#include "link/DevicePacket.h"
#include "link/ResponseReader.h"
#include "link/UsbLink.h"
#include "platform/Event.h"
#include "tests/fuzz/FedLink.h"

namespace {

using ferrolt::test::DeviceBlock;

// Keeps one run short: a reader pass per block.
constexpr size_t kMaxBlocks = 64;

class DiscardingLog : public ferrolt::ILogMessageCallBack {
 public:
  void LogMessageCallBack(std::string format, ...) override { messages_ += format.size(); }

 private:
  size_t messages_ = 0;
};

void ReadFields(const uint8_t* block) {
  const std::string text = ferrolt::PayloadText(block);
  if (text.size() > ferrolt::kPayloadSize) __builtin_trap();
  volatile uint32_t sink = ferrolt::PacketNumber(block) + ferrolt::PacketLength(block) +
                           ferrolt::PacketTypeOf(block) + ferrolt::PacketCrcMatches(block);
  (void)sink;
  (void)ferrolt::StartsWithIgnoringCase(text, "starting download");
  (void)ferrolt::StartsWithIgnoringCase(text, "ending logs");
  if (ferrolt::BytesToHex(block, ferrolt::kBlockSize).size() != 2 * ferrolt::kBlockSize) __builtin_trap();
}

void RunReader(const std::vector<DeviceBlock>& blocks) {
  ferrolt::test::FedLink fed(blocks);
  DiscardingLog log;
  ferrolt::ReadResponses(fed.link, fed.reader, fed.stop, log);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::vector<DeviceBlock> blocks;
  for (size_t offset = 0; offset < size && blocks.size() < kMaxBlocks; offset += ferrolt::kBlockSize) {
    DeviceBlock block{};
    std::memcpy(block.data(), data + offset, std::min(ferrolt::kBlockSize, size - offset));
    ReadFields(block.data());
    blocks.push_back(block);
  }
  RunReader(blocks);
  return 0;
}
