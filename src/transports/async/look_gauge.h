// Whether looking for more to do pays.
#pragma once

namespace synch {

/// A thread that looks for what comes next, before it sleeps, spares itself the waking, and its processor as well. A
/// look that finds nothing costs a few times what one that does saves: looks are left out while fewer than three of
/// four find something, and tried again now and then. Of one thread at a time.
class look_gauge_t {
 public:
  static constexpr unsigned CostInVain = 3;  ///< In looks that found something.
  static constexpr unsigned Limit = 24;      ///< Cost from which looks are left out.
  static constexpr unsigned LeftOut = 64;    ///< So many, until the next try.

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
    if (found) {
      cost_ -= cost_ == 0 ? 0 : 1;
      return;
    }
    cost_ += CostInVain;
    if (cost_ >= Limit) {
      cost_ = Limit;
      leftOut_ = LeftOut;
    }
  }

 private:
  unsigned cost_ = 0;
  unsigned leftOut_ = 0;
};

}  // namespace synch
