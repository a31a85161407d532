// The host's frames as they arrive on the emulator link, in pieces of any
// size: 'W' + 64 bytes is one OUT block; any other frame byte is an error
// that ends the link.
#pragma once

#include <cstddef>
#include <string>

#include "devsim/Service.h"

namespace ferrolt::devsim {

class FrameReader {
 public:
  enum class Next { Block, NeedMore, BadFrame };

  void Append(const char* bytes, size_t count);
  // The next whole block into block, if one has arrived.
  Next Take(Block& block);

 private:
  std::string pending_;
  size_t used_ = 0;
};

}  // namespace ferrolt::devsim
