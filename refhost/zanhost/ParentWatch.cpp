// What follows when the command channel hangs up.
#include "refhost/zanhost/ParentWatch.h"

#include <utility>

#include "refhost/framework/HostLog.h"

namespace zanhost {

ParentWatch::ParentWatch(framework::EventLoop& loop, int channel, std::function<bool()> nobodyLeft)
    : loop_(loop), channel_(channel), nobodyLeft_(std::move(nobodyLeft)) {
  // No events are asked for, so only the hang-up is reported.
  loop_.watch(channel_, channelHungUp, this, nullptr, 0);
}

ParentWatch::~ParentWatch() {
  loop_.unwatch(channel_);
}

void ParentWatch::stopIfAlone() {
  if (!gone_ || !nobodyLeft_()) return;
  HOST_LOG(kLogWarning, "nobody is left to give commands: stopping");
  loop_.stop();
}

void ParentWatch::channelHungUp(int fd, void* cbData) {
  auto* self = static_cast<ParentWatch*>(cbData);
  HOST_LOG(kLogError, "the command channel is closed: idle timers do not work any more");
  self->loop_.unwatch(fd);
  self->gone_ = true;
  self->stopIfAlone();
}

}  // namespace zanhost
