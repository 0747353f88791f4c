// The framework's event loop interface, over framework::EventLoop.
#include "host/ZanCom.h"

#include "refhost/framework/HostSides.h"

ZanCom::ZanCom() : side(std::make_unique<HostSide>()) {}

ZanCom::~ZanCom() = default;

int ZanCom::addComEventHandler(int fd, void (*ready)(int, void*), void* cbData,
                               void (*second)(int, void*), unsigned int events) {
  return side->loop.watch(fd, ready, cbData, second, events);
}

int ZanCom::removeComEventHandler(int fd) {
  return side->loop.unwatch(fd);
}
