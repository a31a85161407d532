// Feeds arbitrary bytes, 64 at a time, through everything that reads what
// the device sends: the field readers, the text and CRC checks, and a whole
// response-reader run over an in-memory device.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "link/DeviceIds.h"
#include "link/DevicePacket.h"
#include "link/Reporting.h"
#include "link/ResponseReader.h"
#include "link/UsbLink.h"
#include "platform/Event.h"
#include "tests/fuzz/FedLink.h"

namespace {

using ferrolt::test::DeviceBlock;

// Keeps one run short: a reader pass per block.
constexpr size_t kMaxBlocks = 64;

void ReadFields(const uint8_t* block) {
  const std::string text = ferrolt::PayloadText(block);
  if (text.size() > ferrolt::kPayloadSize) __builtin_trap();
  volatile uint32_t sink = ferrolt::PacketNumber(block) + ferrolt::PacketLength(block) + ferrolt::PacketTypeOf(block) +
                           ferrolt::PacketCrcMatches(block);
  (void)sink;
  (void)ferrolt::StartsWithIgnoringCase(text, "starting download");
  (void)ferrolt::StartsWithIgnoringCase(text, "ending logs");
  if (ferrolt::BytesToHex(block, ferrolt::kBlockSize).size() != 2 * ferrolt::kBlockSize) __builtin_trap();
}

void RunReader(const std::vector<DeviceBlock>& blocks) {
  ferrolt::test::FedLink fed(blocks);
  ferrolt::ReadResponses(fed.link, fed.reader, fed.stop, ferrolt::LogOrSilent(nullptr));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::vector<DeviceBlock> blocks = ferrolt::test::BlocksOf(data, size, kMaxBlocks);
  for (const DeviceBlock& block : blocks) ReadFields(block.data());
  RunReader(blocks);
  return 0;
}
