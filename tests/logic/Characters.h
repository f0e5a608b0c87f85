#pragma once

#include <string>
#include <string_view>

namespace kestrune::testing {

/// Each of these texts is one character for a reader, though most of them consist of several code points.
inline constexpr std::string_view singleCharacters[] = {
    "x",
    "中",
    "，",
    "é",                                     // one code point
    "e\u0301",                               // a letter and its accent
    "q\u0323\u0307\u0301",                   // a letter and three marks
    "\u1112\u1161\u11AB",                    // a Hangul syllable from its parts
    "한",                                    // the same syllable in one code point
    "\u1112\u1112\u1161\u1161\u11AB\u11AB",  // a Hangul syllable with each part doubled
    "😀",
    "👍🏽",                // an emoji with a skin tone
    "❤\uFE0F",                 // a symbol and the variation selector that makes it an emoji
    "1\uFE0F\u20E3",           // a keycap
    "👨\u200D👩\u200D👧\u200D👦",  // a family
    "🏳\uFE0F\u200D🌈",    // two emoji joined into one
    "🇹🇼",                      // a flag: two regional indicators
    "🏴\U000E0067\U000E0062\U000E0073\U000E0063\U000E0074\U000E007F",  // a flag: an emoji tag sequence
    "क\u093F",  // a consonant and a vowel sign, which is drawn to the left of the consonant
    "ท\u0E33",  // a consonant and a vowel sign, which is drawn to the right of the consonant
};

inline std::string repeated(std::string_view text, int count) {
  std::string result;
  while (count-- > 0) result += text;
  return result;
}

}  // namespace kestrune::testing
