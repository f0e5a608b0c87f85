#pragma once

#include <QTranslator>

namespace kestrune::dialogs {

/// Traditional Chinese for the few words that Qt itself shows here.
class ToolkitWords final : public QTranslator {
 public:
  using QTranslator::QTranslator;

  bool isEmpty() const override { return false; }
  QString translate(const char* context, const char* text, const char* disambiguation,
                    int count) const override;
};

}  // namespace kestrune::dialogs
