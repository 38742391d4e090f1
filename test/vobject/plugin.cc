/// A plugin that loads the shared library, for symbol_plugin_test.cc.
#include "vobject/render.h"

#ifdef _WIN32
#define PLUGIN_API __declspec(dllexport)
#else
#define PLUGIN_API __attribute__((visibility("default")))
#endif

extern "C" {

PLUGIN_API uint32_t plugin_intern(const char* name) {
  return VORN::VObject::intern(name);
}

/// How the plugin renders a value of the host.
PLUGIN_API void plugin_render(const VORN::VObject& v, std::string& out) {
  VORN::render(v, out);
}

}  // extern "C"
