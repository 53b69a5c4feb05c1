#ifndef TARVO_DETAIL_LIFELINE_H
#define TARVO_DETAIL_LIFELINE_H

namespace Tarvo::Impl {

/// Tells a running notification whether its object was destroyed meanwhile. The object has a
/// Lifeline as a member; the notification holds a Watch on its stack. Watches nest: an outer one
/// learns of the end from the inner one, since the Lifeline points to the innermost alone.
class Lifeline {
 public:
  Lifeline() = default;
  Lifeline(const Lifeline&) = delete;
  Lifeline& operator=(const Lifeline&) = delete;
  ~Lifeline() {
    if (watch_ != nullptr) watch_->alive_ = false;
  }

  class Watch {
   public:
    explicit Watch(Lifeline& lifeline) : lifeline_(lifeline), outer_(lifeline.watch_) {
      lifeline_.watch_ = this;
    }
    Watch(const Watch&) = delete;
    Watch& operator=(const Watch&) = delete;
    ~Watch() {
      if (alive_) {
        lifeline_.watch_ = outer_;
      } else if (outer_ != nullptr) {
        outer_->alive_ = false;
      }
    }
    bool alive() const { return alive_; }

   private:
    friend class Lifeline;
    Lifeline& lifeline_;
    Watch* outer_;
    bool alive_ = true;
  };

 private:
  Watch* watch_ = nullptr;
};

}  // namespace Tarvo::Impl

#endif
