// The logic of the export's file dialog without a window: where the data go (clipboard, one file, several
// files), how the files are named, the checks of a name the user typed, and the preview of the names.
#pragma once

#include "exchange/Exportfilter.h"

#include <memory>
#include <string>
#include <vector>

class TExportFilterFileInfoGetterForm {
public:
  enum TTarget { tClipboard, tOneFile, tSeveralFiles };

  /// @{ The dialog's choices with their defaults.
  TTarget Target = tOneFile;
  std::string Folder;                   ///< where the files go; empty: the current folder
  std::string FileName = "Export File"; ///< "Use My File Name:"
  bool UseMyFileName = true;            ///< false: "Use Data Object Name"
  bool AddAutoIncrementNumber = false;
  bool BeforeName = true; ///< the number before the name, else after it
  int64_t MaxSize = 0;    ///< maximum size of each file, 0: none
  /// @}

  /// Most names the preview lists before "More Files (not shown)".
  static constexpr int kPreviewNames = 5;

  /// The choices the filter's target mode allows: one file only (1), also several files (2); the
  /// clipboard is always offered.
  static std::vector<TTarget> OfferedTargets(int32_t targetMode);

  /// "" when name may be used; otherwise the message for the user (forbidden characters, empty or longer
  /// than 200 characters).
  static std::string CheckFileName(const std::string& name);
  /// A caption made fit for a file name: each forbidden character becomes "_"; an empty result "Export".
  static std::string FileNameFromCaption(const std::string& caption);

  /// The file names of an export of objects (captions in the order of ids), with the filter's extension:
  /// one file, or one per object. Names that come out equal are numbered ("name_2.ext"), and
  /// renamedDuplicates says so. Empty for the clipboard.
  std::vector<std::string> MakeFileNames(const TExportFilter& filter,
                                         const std::vector<std::string>& captions,
                                         bool& renamedDuplicates) const;
  /// The preview's lines: the first names, then "More Files (not shown)" and "Number of Files: n".
  static std::vector<std::string> PreviewLines(const std::vector<std::string>& names);

  /// The target of an export of ids: the check of the typed name (message in problem, null result), the
  /// names, the info "Duplicate File Names were renamed." when needed. The filter's target mode limits the
  /// choice: with one file only, several objects go into the one file.
  std::unique_ptr<TExportFilterTarget> CreateFileInfo(TExportFilter& filter, const TIntList& ids,
                                                      const std::vector<std::string>& captions,
                                                      std::string& problem) const;
};
