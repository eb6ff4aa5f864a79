// The text viewer: shows one text object, rich text as its plain text, read-only.
#pragma once

#include "project/Viewerbase.h"

#include <cstdint>
#include <string>

class TVTextForm : public TVCustomForm {
public:
  static constexpr const char* kClassName = "TVTextForm";
  static constexpr const char* kCaption = "Text Viewer";
  static constexpr int32_t ThisVersion = 1;
  /// Ids of the control interface's parameters.
  enum TParameterId : int32_t { kWordWrap = 1, kFontSize = 2 };

  TVTextForm();
  /// Registers the class with its show functions.
  static void RegisterViewer();
  /// True when ids is not empty and its first object is a text.
  static bool IsInputIDListOkayForShowViewer(TProject& project, const TIntList& ids);

  std::string GetClassNameA() const override { return kClassName; }
  void CFICreateParameters(TUserParameterAdministrator& cfi) override;
  void CFIParameterChanged(const TUserParameterList& changed) override;
  /// The base group, then "TVTextForm": "Version", "TextID" and the settings.
  TTagError SaveViewerToTagFile(TFileHandle file) override;
  TTagError LoadViewerFromTagFile(TFileHandle file, const TTagControl& parent) override;
  void DoDataUpdate() override;
  bool IsDataUsed(int32_t id) const override { return id != 0 && id == FTextID; }
  void AddToID(int32_t delta) override;
  /// Takes a text object as the one shown; other objects are refused.
  bool AddDataID(int32_t id) override;
  void ExchangeID(int32_t oldID, int32_t newID) override;
  void DataChanged(TData* data, TDataChangeInfo info) override;
  void BeforeClearProject() override { FTextID = 0; }

  int32_t GetTextID() const { return FTextID; }
  /// What the window shows: the text, or the plain text of a rich-text document.
  const std::string& GetDisplayText() const { return FDisplayText; }
  bool GetWordWrap() const;
  int32_t GetFontSize() const;

  /// The plain text of a rich-text (RTF) document: control words dropped, \par as a line break, groups
  /// of destinations such as font and colour tables skipped, \'hh as Windows-1252 converted to UTF-8.
  static std::string RichTextToPlainText(const std::string& rtf);

private:
  void UpdateCaption();

  int32_t FTextID = 0;
  std::string FDisplayText;
};
