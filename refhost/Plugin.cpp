#include "refhost/Plugin.h"

#include <dlfcn.h>

Plugin::Plugin(const std::string& path) : library(nullptr) {
  // Without a slash dlopen(3) would look in the library path instead of the current directory.
  const std::string file = path.find('/') == std::string::npos ? "./" + path : path;
  library = dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (library == nullptr) {
    failure = std::string("cannot load the plug-in: ") + dlerror();
    return;
  }
  init = reinterpret_cast<Init>(dlsym(library, "init_ct_mgr"));
  deinit = reinterpret_cast<Deinit>(dlsym(library, "deinit_ct_mgr"));
  if (!loaded()) {
    failure = path +
              " is not a connection-tracking plug-in: it must export init_ct_mgr and "
              "deinit_ct_mgr";
  }
}

Plugin::~Plugin() {
  if (library != nullptr) dlclose(library);
}
