#include "dialogs/ToolkitWords.h"

#include <array>
#include <string_view>

namespace kestrune::dialogs {

namespace {

struct Word {
  std::string_view english;
  const char* chinese;
};

// In the context menus of texts and fields.
constexpr std::array words{Word{"&Undo", "復原(&U)"},  Word{"&Redo", "重做(&R)"},
                           Word{"Cu&t", "剪下(&T)"},   Word{"&Copy", "複製(&C)"},
                           Word{"&Paste", "貼上(&P)"}, Word{"Delete", "刪除"},
                           Word{"Select All", "全選"}, Word{"Input Method", "輸入法"}};

}  // namespace

QString ToolkitWords::translate(const char*, const char* text, const char*, int) const {
  for (const auto& word : words) {
    if (word.english == text) return QString::fromUtf8(word.chinese);
  }
  return {};
}

}  // namespace kestrune::dialogs
