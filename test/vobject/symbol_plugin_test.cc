/// A host that links the static library, and a plugin that links the shared one: two symbol tables in one process.
#ifdef _WIN32
#include <windows.h>
#else
#include <dlfcn.h>
#endif

#include <stdexcept>

#include "test/vobject/values.h"

using namespace VORN;
using namespace vorn_test;

namespace {

#ifdef _WIN32

template <typename Function>
Function* in_plugin(const char* name) {
  static const HMODULE plugin = LoadLibraryA(VORN_TEST_PLUGIN);
  if (plugin == nullptr) throw std::runtime_error("error " + std::to_string(GetLastError()));
  return reinterpret_cast<Function*>(reinterpret_cast<void*>(GetProcAddress(plugin, name)));
}

#else

template <typename Function>
Function* in_plugin(const char* name) {
  static void* const plugin = dlopen(VORN_TEST_PLUGIN, RTLD_NOW | RTLD_LOCAL);
  if (plugin == nullptr) throw std::runtime_error(dlerror());
  return reinterpret_cast<Function*>(dlsym(plugin, name));
}

#endif

TEST(SymbolPlugin, WithAnotherKindOfLibraryHasATableOfItsOwn) {
  auto* const intern = in_plugin<uint32_t(const char*)>("plugin_intern");
  auto* const render = in_plugin<void(const VObject&, std::string&)>("plugin_render");
  ASSERT_NE(nullptr, intern);
  ASSERT_NE(nullptr, render);

  EXPECT_EQ(1U, VObject::intern("red"));
  EXPECT_EQ(2U, VObject::intern("green"));
  EXPECT_EQ(1U, intern("green")) << "the first name there";
  const VObject red = VObject("red").intern();
  const VObject green = VObject("green").intern();
  std::string there;
  render(vec({red, green}), there);
  EXPECT_EQ("[:red, :green]", rendered(vec({red, green})));
  EXPECT_EQ("[:green, :<ERROR>]", there);

  // Names cross, and everything else does.
  there.clear();
  render(vec({red.str_or_symbol_name(), 1}), there);
  EXPECT_EQ("[\"red\", 1]", there);
}

}  // namespace
