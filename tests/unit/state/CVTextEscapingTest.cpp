#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "CVTextEscaping.h"

namespace {
struct Pair {
  std::string in;
  std::string out;
};
}  // namespace

TEST(CVTextEscaping, UrlEncodingEscapesEveryReservedCharacterAndUtf8) {
  const std::vector<Pair> cases = {
      {"", ""},
      {"abcXYZ019-._~", "abcXYZ019-._~"},
      {"a b", "a%20b"},
      {"!*'();:@&=+$,/?#[]", "%21%2A%27%28%29%3B%3A%40%26%3D%2B%24%2C%2F%3F%23%5B%5D"},
      {"100%", "100%25"},
      {"\\\\server\\share\\a.txt", "%5C%5Cserver%5Cshare%5Ca.txt"},
      {"é€😀", "%C3%A9%E2%82%AC%F0%9F%98%80"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(CVTextEscaping::URLEncodedString(c.in), c.out) << c.in;
    EXPECT_EQ(CVTextEscaping::URLDecodedString(c.out), c.in) << c.out;
  }
}

TEST(CVTextEscaping, UrlDecodingKeepsWhatIsNotAnEscape) {
  const std::vector<Pair> cases = {
      {"a%2Fb", "a/b"},
      {"%c3%a9", "é"},  // lower-case hex digits
      {"https://devserver/My%20Docs/", "https://devserver/My Docs/"},
      {"a+b", "a+b"},  // "+" is no space in a path
      {"%zz", "%zz"},
      {"50%", "50%"},
      {"%4", "%4"},
      {"%%41", "%A"},
      {"%C3", "%C3"},            // half a character
      {"ok%C3%28", "ok%C3%28"},  // not UTF-8 once decoded
      {"%C0%AF", "%C0%AF"},      // an overlong "/" must not sneak in
  };
  for (const auto& c : cases) EXPECT_EQ(CVTextEscaping::URLDecodedString(c.in), c.out) << c.in;
}

TEST(CVTextEscaping, SpecialSymbolsBecomeEntitiesAndBackInTheirOrder) {
  const std::vector<Pair> cases = {
      {"", ""},
      {"plain", "plain"},
      {"a&b", "a&amp;b"},
      {"<a href=\"x\">'y'</a>", "&lt;a href=&quot;x&quot;&gt;&apos;y&apos;&lt;/a&gt;"},
      {"&lt;", "&amp;lt;"},  // "&" goes first, so existing entities are escaped again
      {"Tom & Jerry's <\"show\">", "Tom &amp; Jerry&apos;s &lt;&quot;show&quot;&gt;"},
  };
  for (const auto& c : cases) EXPECT_EQ(CVTextEscaping::AddSpecialSymbols(c.in), c.out) << c.in;

  EXPECT_EQ(
      CVTextEscaping::ReplaceSpecialSymbols("Tom &amp; Jerry&apos;s &lt;&quot;show&quot;&gt;"),
      "Tom & Jerry's <\"show\">");
  // "&amp;" is undone first, so a literal "&amp;lt;" comes back as "<".
  EXPECT_EQ(CVTextEscaping::ReplaceSpecialSymbols("&amp;lt;"), "<");
  EXPECT_EQ(CVTextEscaping::ReplaceSpecialSymbols("&amp;&amp;"), "&&");
  EXPECT_EQ(CVTextEscaping::ReplaceSpecialSymbols("&unknown; & done"), "&unknown; & done");
  EXPECT_EQ(CVTextEscaping::ReplaceSpecialSymbols(""), "");
}
