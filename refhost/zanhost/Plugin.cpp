// Loading with dlopen(3), and what is said when that fails.
#include "refhost/zanhost/Plugin.h"

#include <dlfcn.h>

namespace zanhost {

Plugin::Plugin(const std::string& path) : library_(nullptr) {
  // Without a slash dlopen(3) would look in the library path instead of the current directory.
  const std::string file = path.find('/') == std::string::npos ? "./" + path : path;
  library_ = dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (library_ == nullptr) {
    failure_ = std::string("cannot load the plug-in: ") + dlerror() +
               "; give the path of a vendor.libzanctmgr.so that was built for this machine";
    return;
  }
  init_ = reinterpret_cast<Init>(dlsym(library_, "init_ct_mgr"));
  deinit_ = reinterpret_cast<Deinit>(dlsym(library_, "deinit_ct_mgr"));
  if (!loaded()) {
    failure_ = path +
               " is not a connection-tracking plug-in: it must export init_ct_mgr and "
               "deinit_ct_mgr";
  }
}

Plugin::~Plugin() {
  if (library_ != nullptr) dlclose(library_);
}

}  // namespace zanhost
