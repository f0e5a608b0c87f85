#include "text/Text.h"

#include <gtest/gtest.h>
#include <utf8proc.h>

#include <set>
#include <vector>

#include "tests/logic/Characters.h"
#include "tests/rig/HostileTexts.h"

namespace kestrune::testing {
namespace {

/// Returns all code points for which `condition` is true. The arguments of `condition` are the same code
/// point: `text` as UTF-8, `character` as a number. Leaves out surrogates, which well-formed UTF-8 cannot
/// contain.
std::set<utf8proc_int32_t> charactersOf(
    const std::function<bool(const std::string& text, utf8proc_int32_t character)>& condition) {
  std::set<utf8proc_int32_t> found;
  for (utf8proc_int32_t character = 0; character <= 0x10FFFF; ++character) {
    if (character >= 0xD800 && character <= 0xDFFF) continue;
    utf8proc_uint8_t bytes[4];
    const auto length = utf8proc_encode_char(character, bytes);
    const std::string text(reinterpret_cast<const char*>(bytes), static_cast<std::size_t>(length));
    if (condition(text, character)) found.insert(character);
  }
  return found;
}

using Characters = std::set<utf8proc_int32_t>;

TEST(Trimming, RemovesWhiteSpaceAndNewlines) {
  const Characters spaces{'\t',   0x0A,   0x0B,   0x0C,   0x0D,   0x85,   0x2028, 0x2029, ' ',
                          0xA0,   0x1680, 0x2000, 0x2001, 0x2002, 0x2003, 0x2004, 0x2005, 0x2006,
                          0x2007, 0x2008, 0x2009, 0x200A, 0x202F, 0x205F, 0x3000};
  const auto around = [](const std::string& text) { return text + "a" + text; };
  EXPECT_EQ(charactersOf([&](const auto& text, auto) { return trimmed(around(text)) == "a"; }), spaces);
  EXPECT_EQ(charactersOf([&](const auto& text, auto) { return trimmed(around(text)) != around(text); }),
            spaces);
}

TEST(Trimming, KeepsIllFormedBytes) {
  for (const std::string_view text :
       {"\xff", "\x80", "\xe3\x80", "\xc2", "\x80\x80\x80\x80\x80", "a\xe3\x80\x80\x80", "a\xe2\x80"}) {
    EXPECT_EQ(trimmed(text), text);
    EXPECT_EQ(trimmed(" " + std::string(text) + "　"), text);
  }
}

TEST(Utf8, AcceptsEveryCodePoint) {
  EXPECT_EQ(charactersOf([](const std::string& text, auto) { return !isValidUtf8(text); }), Characters());
  EXPECT_TRUE(isValidUtf8(""));
}

TEST(Utf8, RejectsIllFormedBytes) {
  for (const std::string bytes :
       {"\x80", "\xbf", "\xc0\x80", "\xc1\xbf", "\xc2", "\xe0\x80\x80", "\xe0\x9f\xbf", "\xe4\xb8",
        "\xed\xa0\x80", "\xed\xbf\xbf", "\xf0\x8f\xbf\xbf", "\xf0\x9f\x98", "\xf4\x90\x80\x80",
        "\xf5\x80\x80\x80", "\xfe", "\xff"}) {
    EXPECT_FALSE(isValidUtf8(bytes));
    EXPECT_FALSE(isValidUtf8(bytes + "中"));
    EXPECT_FALSE(isValidUtf8("中" + bytes));
    EXPECT_FALSE(isValidUtf8("a" + bytes + "b"));
  }
}

TEST(Shortening, CountsGraphemeClusters) {
  std::vector<std::string_view> characters(std::begin(singleCharacters), std::end(singleCharacters));
  characters.insert(characters.end(), {"\r\n", "\xff"});
  for (const std::string_view character : characters) {
    SCOPED_TRACE(character);
    EXPECT_EQ(shortened(repeated(character, 10), 10), repeated(character, 10));
    EXPECT_EQ(shortened(repeated(character, 11), 10), repeated(character, 7) + "...");
    EXPECT_EQ(shortened(repeated(character, 500), 10), repeated(character, 7) + "...");
  }
  EXPECT_EQ(shortened("", 10), "");
}

TEST(Shortening, CountsAnOddRegionalIndicator) {
  const std::string flags = repeated("🇹🇼", 9) + "🇹";
  EXPECT_EQ(shortened(flags, 10), flags);
  EXPECT_EQ(shortened(flags + "🇼🇹", 10), repeated("🇹🇼", 7) + "...");
}

TEST(Shortening, KeepsCombiningMarksWithTheirBase) {
  const std::string marks = repeated("\u0301", 100);
  EXPECT_EQ(shortened(repeated("x", 10) + marks, 10), repeated("x", 10) + marks);
  EXPECT_EQ(shortened(repeated("x", 7) + marks + repeated("x", 4), 10), repeated("x", 7) + marks + "...");
}

TEST(Replacing, ReplacesFromLeftToRight) {
  EXPECT_EQ(replacingAll("aXbXX", "X", "--"), "a--b----");
  EXPECT_EQ(replacingAll("aaa", "aa", "b"), "ba");
  EXPECT_EQ(replacingAll("abc", "x", "y"), "abc");
  EXPECT_EQ(replacingAll("", "x", "y"), "");
  EXPECT_EQ(replacingAll("xx", "x", ""), "");
  EXPECT_EQ(replacingAll("'", "'", "'\"'\"'"), "'\"'\"'");
}

using Lines = std::vector<std::string>;

Lines linesOf(std::string_view text, CrLf crLf = CrLf::oneNewline) {
  Lines lines;
  LineSplitter splitter(text, crLf);
  for (std::string_view line; splitter.next(line);) lines.emplace_back(line);
  return lines;
}

const std::string newlines[] = {"\n", "\v", "\f", "\r", "\r\n", "\u0085", "\u2028", "\u2029"};

TEST(Splitting, EndsAPartAtEverySeparator) {
  using Parts = std::vector<std::string>;
  EXPECT_EQ(split("a:b", ':'), (Parts{"a", "b"}));
  EXPECT_EQ(split(":a::", ':'), (Parts{"", "a", ""}));
  EXPECT_EQ(split(std::string_view("a\0b c\0", 6), '\0'), (Parts{"a", "b c"}));
  EXPECT_EQ(split("", ':'), Parts{});
}

TEST(LineSplitter, EndsALineAtEveryNewline) {
  for (const std::string& newline : newlines) {
    EXPECT_EQ(linesOf(newline), (Lines{"", ""}));
    EXPECT_EQ(linesOf("a" + newline + newline + "b" + newline), (Lines{"a", "", "b", ""}));
    EXPECT_EQ(linesOf("中" + newline + "\u00A0文"), (Lines{"中", "\u00A0文"}));
  }
}

TEST(LineSplitter, CountsCrLfAsOneNewlineOrTwo) {
  for (const std::string& first : newlines) {
    for (const std::string& second : newlines) {
      const bool one = first == "\r" && second == "\n";
      EXPECT_EQ(linesOf("a" + first + second + "b"), one ? (Lines{"a", "b"}) : (Lines{"a", "", "b"}));
    }
  }
  EXPECT_EQ(linesOf("a\r\r\nb"), (Lines{"a", "", "b"}));
  EXPECT_EQ(linesOf("a\n\r\nb"), (Lines{"a", "", "b"}));
  EXPECT_EQ(linesOf("a\r\nb", CrLf::twoNewlines), (Lines{"a", "", "b"}));
}

TEST(LineSplitter, KeepsBytesThatResembleANewline) {
  for (const char* text :
       {"a\tb", "a\u00A0b", "a\u2027b", "a\u202Ab", "a\u001Cb", "a\u001Eb", "a\u0084b", "a\u0086b", "a\\nb",
        "a中b", "a", " ", "a\xc2", "a\xc2z", "a\xe2\x80", "a\xe2\x80z", "a\x85z", "\xff"}) {
    EXPECT_EQ(linesOf(text), Lines{text});
  }
  EXPECT_EQ(linesOf("a\xc2\nb\xe2\x80\nc"), (Lines{"a\xc2", "b\xe2\x80", "c"}));
  EXPECT_EQ(linesOf(std::string_view("a\0b\nc", 5)), (Lines{std::string("a\0b", 3), "c"}));
}

TEST(LineSplitter, ReturnsFalseAtTheEnd) {
  LineSplitter splitter("a\n");
  std::string_view line;
  EXPECT_TRUE(splitter.next(line));
  EXPECT_TRUE(splitter.next(line));
  EXPECT_FALSE(splitter.next(line));
  EXPECT_FALSE(splitter.next(line));
  EXPECT_EQ(linesOf(""), Lines{});
}

TEST(DisplayRow, KeepsReadableText) {
  for (const char* text : {"", " ", "🟢 連線狀態：已連線", "my_project & <co>",
                           "保持 Mac 醒著（防止斷線）", "a  b ", "\u00A0　"}) {
    EXPECT_EQ(displayRow(text), text);
  }
  for (const std::string_view character : singleCharacters) EXPECT_EQ(displayRow(character), character);
}

TEST(DisplayRow, ReplacesControlsWithSpaces) {
  for (int code = 0; code < 0xA0; ++code) {
    if (code >= 0x20 && code < 0x7F) continue;
    std::string text = "a";
    if (code >= 0x80) text += '\xC2';
    text += static_cast<char>(code);
    EXPECT_EQ(displayRow(text + "漢"), "a 漢") << code;
  }
  for (const char* turn : {"\u202A", "\u202E", "\u2066", "\u2069", "\u2028", "\u2029", "\xff"}) {
    EXPECT_EQ(displayRow(std::string("a") + turn + "b"), "a b");
  }
  EXPECT_EQ(displayRow("a\r\nb\xe4\xb8"), "a  b  ");
}

TEST(DisplayRow, RemovesEscapeSequences) {
  for (const char* const sequence :
       {"\x1b[31m", "\x1b[38;5;231m", "\x1b[?25l", "\x1b[1 q", "\u009b2J", "\x1b]0;title\a",
        "\x1b]8;;http://x.example/漢\x1b\\", "\u009d2;title\u009c", "\x1bP+q544e\x1b\\", "\x1b_a\x1b\\",
        "\x1b^a\x1b\\", "\x1bXa\u009c", "\x1b(B", "\0337", "\x1b\\", "\x1bM", "\x1b#8"}) {
    EXPECT_EQ(displayRow(sequence), "") << sequence + 1;
    EXPECT_EQ(displayRow("a" + std::string(sequence) + "b"), "ab") << sequence + 1;
  }
}

TEST(DisplayRow, KeepsTheTextAfterABrokenEscapeSequence) {
  EXPECT_EQ(displayRow("a\x1b"), "a ");
  EXPECT_EQ(displayRow("a\x1b 漢"), "a  漢");
  EXPECT_EQ(displayRow("a\x1b[3"), "a [3");
  EXPECT_EQ(displayRow("a\x1b[3漢"), "a [3漢");
  EXPECT_EQ(displayRow("a\x1b[3\x1b[31mb"), "a [3b");
  EXPECT_EQ(displayRow("a\x1b]0;title"), "a ]0;title");
  EXPECT_EQ(displayRow("a\x1b]0;title\nb\a"), "a ]0;title b ");
}

TEST(DisplayRow, IsShortenedToTwoHundredCharacters) {
  for (const std::string_view character : {"x", "中", "🇹🇼", "👨\u200D👩\u200D👧\u200D👦"}) {
    EXPECT_EQ(displayRow(repeated(character, 200)), repeated(character, 200));
    EXPECT_EQ(displayRow(repeated(character, 201)), repeated(character, 197) + "...");
    EXPECT_EQ(displayRow(repeated(character, 1 << 17)), repeated(character, 197) + "...");
  }
}

TEST(DisplayRow, CutsAnEndlessGraphemeClusterBetweenCodePoints) {
  const std::string row = displayRow("x" + repeated("\u0301", 1 << 18));
  EXPECT_LT(row.size(), 1U << 14);
  EXPECT_TRUE(isValidUtf8(row));
  EXPECT_EQ(row.rfind("x\u0301", 0), 0U);
}

// `withoutControls` replaces control characters, but also noncharacters such as U+FFFE, because sd-bus
// refuses a string that contains a noncharacter (EINVAL).
TEST(ReadableText, HasNoControlCharacters) {
  EXPECT_EQ(charactersOf([](const std::string& text, auto character) {
              return withoutControls(text) != (commandsAScreen(character) ? " " : text);
            }),
            Characters());
  for (const char* const surrogate : {"\xED\xA0\x80", "\xED\xAF\xBF", "\xED\xB0\x80", "\xED\xBF\xBF"}) {
    EXPECT_EQ(faultOf(withoutControls(surrogate)), "");
  }
}

TEST(ReadableText, IsCutBetweenCodePoints) {
  EXPECT_EQ(withoutControls("a\u0007b\u202Ec\n" + std::string(1000, 'x')), "a b c " + std::string(1000, 'x'));
  EXPECT_EQ(withinBytes("中文", 7), "中文");
  EXPECT_EQ(withinBytes("中文", 6), "中文");
  EXPECT_EQ(withinBytes("中文", 5), "中");
  EXPECT_EQ(withinBytes("中文", 3), "中");
  EXPECT_EQ(withinBytes("中文", 2), "");
  EXPECT_EQ(withinBytes("abc", 2), "ab");
  EXPECT_EQ(withinBytes("", 2), "");
}

}  // namespace
}  // namespace kestrune::testing
