#pragma once

#include <QTranslator>

namespace kestrune::dialogs {

/// The few words that the toolkit itself shows here, in the language of everything else.
class ToolkitWords final : public QTranslator {
 public:
  using QTranslator::QTranslator;

  bool isEmpty() const override { return false; }
  QString translate(const char* context, const char* text, const char* disambiguation,
                    int count) const override;
};

}  // namespace kestrune::dialogs
