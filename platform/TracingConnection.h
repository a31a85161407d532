// An opened connection whose bulk transfers are recorded in a capture
// (FERROLT_TRACE): each submission as it is made, each end as its transfer
// finishes. The transfer itself tells of its end (TransferObserver), so the
// recording needs no thread of its own, and each end is recorded once,
// whether the transfer completed, was withdrawn after its wait ran out,
// failed, or was still outstanding when the connection closed. A connection
// that records its own transfers (CaptureOwnTransfers) is left to do so, and
// only the descriptors are recorded here. Every other call goes to the
// wrapped connection unchanged.
#pragma once

#include <memory>
#include <mutex>

#include "capture/UsbCapture.h"
#include "platform/DeviceBackend.h"

namespace ferrolt::platform {

class TracingConnection final : public DeviceConnection {
 public:
  // model: the device as the path names it; the pipe and speed queries
  // complete it before the descriptors open the capture.
  TracingConnection(std::unique_ptr<DeviceConnection> inner, std::shared_ptr<capture::UsbCapture> capture,
                    const capture::UsbDeviceModel& model);
  // Transfers still outstanding end as closed.
  ~TracingConnection() override;

  bool Initialize() override;
  bool QueryInterfaceSettings(uint8_t& endpointCount) override;
  bool QueryPipe(uint8_t endpointIndex, PipeInfo& pipe) override;
  bool QueryDeviceSpeed(uint8_t& speed, uint32_t& error) override;
  std::shared_ptr<Transfer> StartWrite(uint8_t pipeId, const uint8_t* data, uint32_t length) override;
  std::vector<std::shared_ptr<Transfer>> StartWrites(uint8_t pipeId, const uint8_t* blocks, size_t count,
                                                     uint32_t length) override;
  std::shared_ptr<Transfer> StartRead(uint8_t pipeId, uint32_t length) override;
  bool FlushPipe(uint8_t pipeId) override;
  bool Abort(Transfer& transfer) override;

 private:
  class Ends;

  void RecordDescriptorsOnce();
  // Watches a started transfer for its end; a null one was refused at once.
  std::shared_ptr<Transfer> Track(std::shared_ptr<Transfer> transfer, uint64_t id, uint8_t pipeId);

  std::shared_ptr<capture::UsbCapture> capture_;
  std::shared_ptr<Ends> ends_;
  std::mutex modelMutex_;  // guards model_: the queries and the first transfer may run on different threads
  capture::UsbDeviceModel model_;
  std::once_flag descriptorsRecorded_;
  std::unique_ptr<DeviceConnection> inner_;  // it ends first, while the rest still stands
  bool innerRecords_;                        // the inner connection records its own transfers
};

}  // namespace ferrolt::platform
