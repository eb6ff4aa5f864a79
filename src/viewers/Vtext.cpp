// The text viewer.
#include "viewers/Vtext.h"

#include "common/Saveandload.h"
#include "data/Dtext.h"
#include "project/Project.h"
#include "viewers/Viewershow.h"

#include <cctype>

namespace {
const char* kGroup = "TVTextForm";
const char* kSettingsGroup = "Settings";
} // namespace

TVTextForm::TVTextForm() {
  SetFormCaption(kCaption);
  SetBounds(0, 0, 520, 420);
  CreateCFI();
}

void TVTextForm::RegisterViewer() {
  TVCustomForm::RegisterViewer(kClassName, [](TRegisteredViewer& entry) {
    entry.CreateViewer = [] { return std::make_unique<TVTextForm>(); };
    entry.IsInputIDListOkayForShowViewer = &TVTextForm::IsInputIDListOkayForShowViewer;
    entry.ShowViewer = [](TProject& project, const TIntList& ids) {
      return ShowNewViewer(project, std::make_unique<TVTextForm>(), ids);
    };
    entry.Caption = kCaption;
  });
}

bool TVTextForm::IsInputIDListOkayForShowViewer(TProject& project, const TIntList& ids) {
  return !ids.empty() && project.IsIDInheritFrom(ids.front(), TDText::kClassName);
}

void TVTextForm::CFICreateParameters(TUserParameterAdministrator& cfi) {
  auto* wrap = cfi.Add<TUserBoolParameter>(kWordWrap, "WordWrap", "Word Wrap",
                                           "Breaks long lines at the window's edge", true);
  wrap->TrueFalseStrings("On", "Off");
  auto* size =
      cfi.Add<TUserIntParameter>(kFontSize, "FontSize", "Font Size", "Size of the text in points", 9);
  size->SetLimits(6, 72);
}

void TVTextForm::CFIParameterChanged(const TUserParameterList& /*changed*/) {
  Redraw();
  if (TProject* project = GetProject()) project->ProjectChangedForSave(this);
}

bool TVTextForm::GetWordWrap() const {
  const TUserBoolParameter* p = GetCFI()->GetUserBoolParameter(kWordWrap);
  return p && p->GetParameter();
}

int32_t TVTextForm::GetFontSize() const {
  const TUserIntParameter* p = GetCFI()->GetUserIntParameter(kFontSize);
  return p ? p->GetParameter() : 9;
}

TTagError TVTextForm::SaveViewerToTagFile(TFileHandle file) {
  TTagError result = TVCustomForm::SaveViewerToTagFile(file);
  if (result < 1) return result;
  TTagControl group, settings, t;
  if ((result = group.WriteTag(file, kGroup, TTagKind::TagList)) < 1 ||
      (result = t.SaveIntTag(file, "Version", ThisVersion)) < 1 ||
      (result = t.SaveIntTag(file, "TextID", FTextID)) < 1 ||
      (result = settings.WriteTag(file, kSettingsGroup, TTagKind::TagList)) < 1 ||
      (result = GetCFI()->SaveParameterValuesToFile(file)) < 1 || (result = settings.CloseWriteTag(file)) < 1)
    return result;
  return group.CloseWriteTag(file);
}

TTagError TVTextForm::LoadViewerFromTagFile(TFileHandle file, const TTagControl& parent) {
  TTagError result = TVCustomForm::LoadViewerFromTagFile(file, parent);
  if (result < 1) return result;
  TTagControl group, settings, t;
  if ((result = group.FindTag(file, kGroup, parent)) != teNoError) return result;
  if ((result = t.LoadIntTag(file, "TextID", group, &FTextID, 1)) != teNoError) return result;
  if (settings.FindTag(file, kSettingsGroup, group) == teNoError)
    GetCFI()->LoadParameterValuesFromFile(file, &settings);
  return teNoError;
}

void TVTextForm::UpdateCaption() {
  std::string caption = kCaption;
  if (TProject* project = GetProject())
    if (const TData* data = project->FindData(FTextID)) caption += " - " + data->GetCaption();
  SetFormCaption(caption);
}

void TVTextForm::DoDataUpdate() {
  FDisplayText.clear();
  if (TProject* project = GetProject()) {
    if (auto* text = dynamic_cast<TDText*>(project->LockData(FTextID))) {
      FDisplayText = text->IsRichText() ? RichTextToPlainText(text->GetText()) : text->GetText();
      project->UnlockData(text);
    } else if (TData* other = project->FindData(FTextID)) {
      project->UnlockData(other);
    }
  }
  UpdateCaption();
  Redraw();
}

void TVTextForm::AddToID(int32_t delta) {
  TData::SafeAddToDataID(FTextID, delta);
}

bool TVTextForm::AddDataID(int32_t id) {
  TProject* project = GetProject();
  if (!project || !project->IsIDInheritFrom(id, TDText::kClassName)) return false;
  FTextID = id;
  DoDataUpdate();
  project->ProjectChangedForSave(this);
  return true;
}

void TVTextForm::ExchangeID(int32_t oldID, int32_t newID) {
  if (FTextID != 0 && FTextID == oldID) {
    FTextID = newID;
    DoDataUpdate();
  }
}

void TVTextForm::DataChanged(TData* data, TDataChangeInfo info) {
  if (!data || FTextID == 0 || data->GetID() != FTextID) return;
  if (info == TDataChangeInfo::Removed || info == TDataChangeInfo::AboutToBeDeleted) {
    FTextID = 0;
    FDisplayText.clear();
    UpdateCaption();
    Redraw();
  } else {
    DoDataUpdate();
  }
}

std::string TVTextForm::RichTextToPlainText(const std::string& rtf) {
  // Destinations whose text is not part of the document.
  static const char* const kSkipped[] = {"fonttbl",   "colortbl",         "stylesheet", "info",
                                         "pict",      "header",           "footer",     "generator",
                                         "listtable", "listoverridetable"};
  std::string out;
  std::string ansi; // bytes of \'hh escapes, converted together
  std::vector<bool> skipStack{false};
  auto flushAnsi = [&] {
    if (!ansi.empty()) out += Cp1252ToUtf8(ansi);
    ansi.clear();
  };
  const size_t n = rtf.size();
  for (size_t i = 0; i < n; ++i) {
    const char c = rtf[i];
    const bool skipping = skipStack.back();
    if (c == '{') {
      skipStack.push_back(skipping);
      continue;
    }
    if (c == '}') {
      if (skipStack.size() > 1) skipStack.pop_back();
      continue;
    }
    if (c == '\r' || c == '\n') continue;
    if (c != '\\') {
      if (!skipping) {
        flushAnsi();
        out += c;
      }
      continue;
    }
    if (i + 1 >= n) break;
    const char next = rtf[i + 1];
    if (next == '\\' || next == '{' || next == '}') {
      if (!skipping) {
        flushAnsi();
        out += next;
      }
      ++i;
      continue;
    }
    if (next == '\'') {
      if (i + 3 < n) {
        const std::string hex = rtf.substr(i + 2, 2);
        if (!skipping && std::isxdigit(static_cast<unsigned char>(hex[0])) &&
            std::isxdigit(static_cast<unsigned char>(hex[1])))
          ansi += static_cast<char>(std::stoi(hex, nullptr, 16));
      }
      i += 3;
      continue;
    }
    if (next == '*') { // an optional destination this reader doesn't know
      skipStack.back() = true;
      ++i;
      continue;
    }
    if (!std::isalpha(static_cast<unsigned char>(next))) { // a control symbol such as \~ or \-
      if (!skipping && next == '~') {
        flushAnsi();
        out += ' ';
      }
      ++i;
      continue;
    }
    // A control word: letters, an optional signed number, and one space that belongs to it.
    size_t j = i + 1;
    while (j < n && std::isalpha(static_cast<unsigned char>(rtf[j]))) ++j;
    const std::string word = rtf.substr(i + 1, j - i - 1);
    if (j < n && (rtf[j] == '-' || std::isdigit(static_cast<unsigned char>(rtf[j])))) {
      ++j;
      while (j < n && std::isdigit(static_cast<unsigned char>(rtf[j]))) ++j;
    }
    if (j < n && rtf[j] == ' ') ++j;
    i = j - 1;
    for (const char* name : kSkipped)
      if (word == name) skipStack.back() = true;
    if (skipStack.back()) continue;
    if (word == "par" || word == "line") {
      flushAnsi();
      out += '\n';
    } else if (word == "tab") {
      flushAnsi();
      out += '\t';
    }
  }
  flushAnsi();
  return out;
}
