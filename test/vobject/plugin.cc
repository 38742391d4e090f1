/// A plugin that loads the shared library, for symbol_plugin_test.cc.
#include "vobject/render.h"

extern "C" {

__attribute__((visibility("default"))) uint32_t plugin_intern(const char* name) {
  return VORN::VObject::intern(name);
}

/// How the plugin renders a value of the host.
__attribute__((visibility("default"))) void plugin_render(const VORN::VObject& v, std::string& out) {
  VORN::render(v, out);
}

}  // extern "C"
