// Whether looking for more to do pays.
#pragma once

namespace synch {

/// A thread that looks for what comes next, before it sleeps, spares itself the waking, and its processor as well.
/// Where nothing comes that soon it only burns time: looks that found nothing several times in a row are left out, and
/// tried again now and then. Of one thread.
class look_gauge_t {
 public:
  static constexpr unsigned InVain = 8;    ///< So many looks in a row that found nothing are enough.
  static constexpr unsigned LeftOut = 64;  ///< So many are left out then, until the next try.

  /// Whether to look this time.
  bool Pays() noexcept {
    if (leftOut_ == 0) {
      return true;
    }
    --leftOut_;
    return false;
  }
  /// What the look brought.
  void Tell(bool found) noexcept {
    inVain_ = found ? 0 : inVain_ + 1;
    if (inVain_ >= InVain) {
      inVain_ = InVain;
      leftOut_ = LeftOut;
    }
  }

 private:
  unsigned inVain_ = 0;
  unsigned leftOut_ = 0;
};

}  // namespace synch
