#include "vobject/render.h"

#include <cfloat>
#include <climits>
#include <cmath>
#include <sstream>

#include "test/vobject/values.h"

using namespace VORN;
using namespace vorn_test;

namespace {

std::string escaped(const std::string& bytes, char quote) {
  std::string text;
  escape_str(bytes, text, quote);
  return text;
}

std::string printed(double d) {
  std::string text(400, '\0');
  text.resize(static_cast<size_t>(std::snprintf(&text[0], text.size(), "%f", d)));
  return text;
}

VObject symbol(const std::string& name) {
  VObject v(name);
  v.intern();
  return v;
}

TEST(Render, Scalars) {
  EXPECT_EQ("nil", rendered(VObject()));
  EXPECT_EQ("0", rendered(0));
  EXPECT_EQ("-7", rendered(-7));
  EXPECT_EQ("9223372036854775807", rendered(INT64_MAX));
  EXPECT_EQ("-9223372036854775808", rendered(INT64_MIN));
  EXPECT_EQ("true", rendered(true));
  EXPECT_EQ("false", rendered(false));
}

TEST(Render, DoublesAsTheCLibraryPrintsThem) {
  EXPECT_EQ("1.500000", rendered(1.5));
  EXPECT_EQ("-0.000000", rendered(-0.0));
  EXPECT_EQ("0.000000", rendered(1e-9));
  for (const double d : {HUGE_VAL, -HUGE_VAL, std::nan(""), 1e300, DBL_MAX, -DBL_MAX, DBL_MIN}) {
    EXPECT_EQ(printed(d), rendered(d));
  }
  EXPECT_EQ(1 + 309 + 7U, rendered(-DBL_MAX).size()) << "never cut";
}

TEST(Render, Strings) {
  EXPECT_EQ("\"\"", rendered(""));
  EXPECT_EQ("\"abc\"", rendered("abc"));
  EXPECT_EQ("\"\\\"\\\\\\x09\"", rendered("\"\\\t"));
  EXPECT_EQ("\"\x7F\\xff\"", rendered("\x7F\xFF"));
  EXPECT_EQ("\"a\\x00b\"", rendered(VObject("a\0b", 3)));
}

TEST(Render, Symbols) {
  EXPECT_EQ(":abc", rendered(symbol("abc")));
  EXPECT_EQ(":\"a b\"", rendered(symbol("a b")));
  EXPECT_EQ(":\" a\"", rendered(symbol(" a")));
  EXPECT_EQ(":\"a \"", rendered(symbol("a ")));
  EXPECT_EQ(":a\\\"b\\x09", rendered(symbol("a\"b\t")));
  EXPECT_EQ(":\"a \\xe9\"", rendered(symbol("a \xE9")));
  EXPECT_EQ(":", rendered(symbol("")));
}

TEST(Render, Containers) {
  EXPECT_EQ("[]", rendered(VObject::new_vector()));
  EXPECT_EQ("{}", rendered(VObject::new_hash()));
  EXPECT_EQ("{\"a\"=>1, \"b\"=>[true, nil]}", rendered(hash({{"b", vec({true, VObject()})}, {"a", 1}})));
  EXPECT_EQ("{\"\"=>{}, \"\\\"\\x80\"=>[[]]}", rendered(hash({{"\"\x80", vec({vec({})})}, {"", hash({})}})));
  EXPECT_EQ("[1, \"two\", 3.000000]", rendered(vec({1, "two", 3.0})));
}

TEST(Render, ReferencesAreShown) {
  EXPECT_EQ("<REF:7>", rendered(make_ref(7)));
  const auto middle = boost::make_shared<VObject>();
  VObject x;
  x = middle;
  *middle = boost::make_shared<VObject>(7);
  EXPECT_EQ("<REF:<REF:7>>", rendered(x));
  EXPECT_EQ("[<REF:[]>]", rendered(vec({make_ref(vec({}))})));
}

TEST(Render, UserDefinedObjectsRenderThemselves) {
  EXPECT_EQ("#5", rendered(VObject(number(5))));
  EXPECT_EQ("<UDT:NULL>", rendered(VObject(boost::shared_ptr<VObjectUDT>())));
}

TEST(Render, ForeignTagsAreNumbers) {
  for (const int tag : {10, 12, 255}) {
    VObject v(1);
    force_tag(v, static_cast<unsigned char>(tag));
    EXPECT_EQ("<unknown_type:" + std::to_string(tag) + ">", rendered(v));
    force_tag(v, DT_INT);
  }
}

TEST(Render, AppendsToWhatIsThere) {
  std::string text = "v=";
  render(1, text);
  text += ", ";
  render("a", text);
  EXPECT_EQ("v=1, \"a\"", text);
}

TEST(Render, IntoTheStringThatIsRendered) {
  VObject v("ab\"");
  render(v, v.getstr());
  EXPECT_EQ("ab\"\"ab\\\"\"", v.getstr());
  VObject h = hash({{"k", "text"}});
  render(h, h.fetch("k").getstr());
  EXPECT_EQ("text{\"k\"=>\"text{\\\"k\\\"=>\"}", h.fetch("k").getstr());
}

TEST(Render, NeverFails) {
  RandomValues random(7);
  for (int i = 0; i < 5000; ++i) {
    const VObject v = random.value(4, true);
    std::string text;
    ASSERT_NO_THROW(render(v, text));
    ASSERT_FALSE(text.empty());
    for (const char c : text)
      ASSERT_TRUE(static_cast<unsigned char>(c) >= 0x20 && static_cast<unsigned char>(c) < 0x80);
  }
}

TEST(EscapeStr, EveryByte) {
  for (int c = 0; c < 256; ++c) {
    char hex[8];
    std::snprintf(hex, sizeof hex, "\\x%02x", c);
    std::string expected(1, static_cast<char>(c));
    if (c < 0x20 || c >= 0x80) expected = hex;
    if (c == '"' || c == '\\') expected = std::string("\\") + static_cast<char>(c);
    EXPECT_EQ(expected, escaped(std::string(1, static_cast<char>(c)), '\0')) << c;
  }
}

TEST(EscapeStr, Quotes) {
  EXPECT_EQ("abc", escaped("abc", '\0'));
  EXPECT_EQ("'it's \\\"'", escaped("it's \"", '\'')) << "double quotes are escaped, single ones never";
  EXPECT_EQ("||", escaped("", '|'));
  EXPECT_EQ("", escaped("", '\0'));
  std::string text = "x\n";
  escape_str(text, text, '"');
  EXPECT_EQ("x\n\"x\\x0a\"", text);
}

template <typename T, typename = void>
struct IsPrintable : std::false_type {};
template <typename T>
struct IsPrintable<T, std::void_t<decltype(std::declval<std::ostream&>() << std::declval<T>())>> : std::true_type {};

// Made where the namespace's functions are found without argument-dependent lookup too.
struct Convertible {
  operator VObject() const { return VObject(1); }
};

TEST(Print, VariantsOnly) {
  std::ostringstream out;
  out << hash({{"a", 1}}) << ' ' << VObject("b\n");
  EXPECT_EQ("{\"a\"=>1} \"b\\x0a\"", out.str());
  EXPECT_FALSE(IsPrintable<Convertible>::value);
}

#ifndef NDEBUG

TEST(RenderDeathTest, BytesDoNotLieInTheTextThatTheyAreAppendedTo) {
  std::string text = "xxx";
  text.reserve(100);  // it stays where it is while it grows
  VObject v = VObject::new_hash();
  v.gethash().try_emplace(string_ref::make_static(text.data(), 3));
  EXPECT_EQ("{\"xxx\"=>nil}", rendered(v));
  EXPECT_DEATH(render(v, text), "lies_in");
}

#endif

}  // namespace
