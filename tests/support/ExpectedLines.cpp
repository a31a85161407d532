#include "tests/support/ExpectedLines.h"

#include "devsim/DevicePackets.h"

namespace ferrolt::test::lines {
namespace {

std::string ReadData(const devsim::Block& reply) {
  return "VersionInfoReadyCallBack:\tRead data :" + devsim::HexOf(reply.data(), reply.size()) + "\n";
}

std::string WriteData(const devsim::Block& block) {
  return "LogMessageCallBack:\tWrite data:" + devsim::HexOf(block.data(), block.size());
}

}  // namespace

std::string Progress(int percent) {
  return "ProgressChangeCallBack:\t" + std::to_string(percent) + " percent completed\n";
}

std::string Log(const std::string& text) { return "LogMessageCallBack:\t" + text + "\n"; }

std::string VersionLines(const char* mode, const std::string& version) {
  return std::string(kOpened) + mode + kSpi + ReadData(devsim::MakeTextPacket(devsim::kTypeVersion, version)) +
         "VersionInfoReadyCallBack:\tVersion - " + version + "\n" + Progress(100);
}

std::string UploadOf58Bytes(const std::string& bytes) {
  const auto* data = reinterpret_cast<const uint8_t*>(bytes.data());
  const devsim::Block first = devsim::MakePacket(devsim::kTypeUpload, 0, data, devsim::kPayloadSize);
  const devsim::Block second = devsim::MakePacket(devsim::kTypeUpload, 1, data + devsim::kPayloadSize, 1);
  return "Local Path  : f58.bin\n" + std::string(kOpened) + Progress(5) + "File to send: f58.bin\n" + kSpi +
         Progress(10) + Log("Succeeded in writing 'File Upload' to device.") + Progress(15) +
         "FILE UPLOADING TO DEVICE...\n\rProgress: 0%" + WriteData(first) + "\n\rProgress: 50%" + WriteData(second) +
         "\n" + Log("Succeeded in writing 'Ending upload' to device.") +
         "\n-------------------------------------------\nFile Size = 58\nPacket Count = 2\n" + Progress(100) +
         kUploadFinished;
}

std::string ProgCapThroughAStall() {
  return std::string("Programming Captouch...\n") + kOpened + Progress(5) + kSpi + kWriteFailed +
         Log("Failed to send reboot message to device.") + kOpened +
         Log("Sent reboot message to device successfully.") + Progress(100);
}

std::string UnpluggedForGoodTail() { return std::string(kWriteFailed) + kNotFound + kConnectFailure + kFailedOpen; }

}  // namespace ferrolt::test::lines
