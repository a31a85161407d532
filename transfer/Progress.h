// The progress points the operations share, and the percentage lines that
// go out only when the integer percentage changes.
#pragma once

namespace ferrolt {

// The worker has started (or, for the operations that open it, has the link).
inline constexpr int kProgressStarted = 5;
// The local file to send is open.
inline constexpr int kProgressFileOpen = 10;
// The operation has finished its work.
inline constexpr int kProgressDone = 100;

// The last percentage reported, so that the next line goes out only when it
// differs.
class PercentSeen {
 public:
  bool Changed(int percent) {
    if (percent == last_) return false;
    last_ = percent;
    return true;
  }
  void Forget() { last_ = kNone; }

 private:
  static constexpr int kNone = -1;
  int last_ = kNone;
};

}  // namespace ferrolt
