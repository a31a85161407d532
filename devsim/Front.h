// A way of reaching the device from outside the process: ferrolt-devsim
// listens on one, then serves hosts on it until told to stop.
#pragma once

#include <string>

namespace ferrolt::devsim {

class Front {
 public:
  virtual ~Front() = default;
  // Binds and listens; false with error set when that fails.
  virtual bool Listen(std::string& error) = 0;
  // "PATH" or "tcp:HOST:PORT" with the port actually bound.
  virtual std::string Endpoint() const = 0;
  // Serves hosts until RequestStop.
  virtual void Serve() = 0;
  // Ends Serve soon; async-signal-safe, callable from any thread.
  virtual void RequestStop() = 0;
};

}  // namespace ferrolt::devsim
