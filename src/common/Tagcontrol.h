// One tag of a tag file: a cursor on a file and a node of an in-memory tree.
//
// A tag file is an 8-byte identification followed by one root tag of kind list. A tag is a name (4-byte
// length and bytes), a kind (4 bytes), Begin and End (8 bytes each, absolute offsets) and the payload
// between them: child tags back to back for a list, the values back to back for the other kinds.
#pragma once

#include "common/Saveandload.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

/// A list of integer IDs as the system stores them ("Count" + "Data").
using TIntList = std::vector<int32_t>;

class TTagControl {
public:
  using TChildren = std::vector<std::unique_ptr<TTagControl>>;

  /// An empty cursor.
  TTagControl() = default;
  /// A tree node; with kind TagList an empty children list is made, otherwise a non-null data pointer
  /// (count elements; for strings one std::string) is stored. Int64, Word and kind 1 with data throw.
  TTagControl(const std::string& name, TTagKind kind, const void* data = nullptr, int64_t count = 1);
  static std::unique_ptr<TTagControl> CreateTag(const std::string& name, TTagKind kind,
                                                const void* data = nullptr, int64_t count = 1);

  TTagControl(const TTagControl&) = delete;
  TTagControl& operator=(const TTagControl&) = delete;

  /// @{ Fields.
  int64_t Begin() const { return FBegin; }
  int64_t End() const { return FEnd; }
  TTagKind Kind() const { return FKind; }
  const std::string& Name() const { return FName; }
  void SetName(const std::string& name) { FName = name; }
  void SetRange(int64_t begin, int64_t end) {
    FBegin = begin;
    FEnd = end;
  }
  void SetKind(TTagKind kind) { FKind = kind; }
  TChildren* Children() { return FChildren.get(); }
  const TChildren* Children() const { return FChildren.get(); }
  bool HasData() const { return FHasData; }
  const std::vector<uint8_t>& Data() const { return FData; }
  int64_t DataSize() const { return static_cast<int64_t>(FData.size()); }
  /// @}

  // --- Writing to a file -----------------------------------------------------------------------

  /// Writes the header and leaves the file at Begin; the tag stays open until CloseWriteTag.
  TTagError WriteTag(TFileHandle file, const std::string& name, TTagKind kind);
  /// Back-patches End and returns to the end of the file.
  TTagError CloseWriteTag(TFileHandle file);

  TTagError SaveIntTag(TFileHandle file, const std::string& name, const int32_t* values, int64_t count);
  TTagError SaveInt64Tag(TFileHandle file, const std::string& name, const int64_t* values, int64_t count);
  TTagError SaveDoubleTag(TFileHandle file, const std::string& name, const double* values, int64_t count);
  TTagError SaveFloatTag(TFileHandle file, const std::string& name, const float* values, int64_t count);
  TTagError SaveWordTag(TFileHandle file, const std::string& name, const uint16_t* values, int64_t count);
  TTagError SaveByteTag(TFileHandle file, const std::string& name, const uint8_t* values, int64_t count);
  TTagError SaveBoolTag(TFileHandle file, const std::string& name, const bool* values, int64_t count);
  TTagError SaveAnsiStringTag(TFileHandle file, const std::string& name, const std::string& text);
  /// @{ One value.
  TTagError SaveIntTag(TFileHandle file, const std::string& name, int32_t value) {
    return SaveIntTag(file, name, &value, 1);
  }
  TTagError SaveInt64Tag(TFileHandle file, const std::string& name, int64_t value) {
    return SaveInt64Tag(file, name, &value, 1);
  }
  TTagError SaveDoubleTag(TFileHandle file, const std::string& name, double value) {
    return SaveDoubleTag(file, name, &value, 1);
  }
  TTagError SaveFloatTag(TFileHandle file, const std::string& name, float value) {
    return SaveFloatTag(file, name, &value, 1);
  }
  TTagError SaveBoolTag(TFileHandle file, const std::string& name, bool value) {
    return SaveBoolTag(file, name, &value, 1);
  }
  /// @}
  /// A Double tag name + "_D", then a Float tag name with the values through SafeDoubleToFloat.
  TTagError SaveDoubleAndFloatTag(TFileHandle file, const std::string& name, const double* values,
                                  int64_t count);
  /// A list tag holding "Count" and one string tag "Strings" with all strings in a row.
  TTagError SaveStringList(TFileHandle file, const std::string& name,
                           const std::vector<std::string>& strings);
  /// A list tag holding "Count" and an Int tag "Data" with one value per entry.
  TTagError SaveList(TFileHandle file, const std::string& name, const TIntList& list);

  // --- Reading from a file ---------------------------------------------------------------------

  /// Reads the header at the current position; the file is then at Begin. A header that can't be read
  /// whole gives -1 (a truncated file shows up as a tag that is not found).
  TTagError ReadTag(TFileHandle file, std::string& name);
  /// Linear search over the direct children of parent; the first tag of the name wins.
  TTagError FindTag(TFileHandle file, const std::string& name, const TTagControl& parent);

  TTagError LoadIntTag(TFileHandle file, const std::string& name, const TTagControl& parent, int32_t* values,
                       int64_t count = 1);
  TTagError LoadInt64Tag(TFileHandle file, const std::string& name, const TTagControl& parent,
                         int64_t* values, int64_t count = 1);
  TTagError LoadDoubleTag(TFileHandle file, const std::string& name, const TTagControl& parent,
                          double* values, int64_t count = 1);
  TTagError LoadFloatTag(TFileHandle file, const std::string& name, const TTagControl& parent, float* values,
                         int64_t count = 1);
  TTagError LoadWordTag(TFileHandle file, const std::string& name, const TTagControl& parent,
                        uint16_t* values, int64_t count = 1);
  TTagError LoadByteTag(TFileHandle file, const std::string& name, const TTagControl& parent, uint8_t* values,
                        int64_t count = 1);
  TTagError LoadBoolTag(TFileHandle file, const std::string& name, const TTagControl& parent, bool* values,
                        int64_t count = 1);
  TTagError LoadAnsiStringTag(TFileHandle file, const std::string& name, const TTagControl& parent,
                              std::string& text);

  TTagError LoadOrDefaultIntTag(TFileHandle file, const std::string& name, const TTagControl& parent,
                                int32_t* values, int64_t count, int32_t defaultValue);
  TTagError LoadOrDefaultInt64Tag(TFileHandle file, const std::string& name, const TTagControl& parent,
                                  int64_t* values, int64_t count, int64_t defaultValue);
  TTagError LoadOrDefaultDoubleTag(TFileHandle file, const std::string& name, const TTagControl& parent,
                                   double* values, int64_t count, double defaultValue);
  TTagError LoadOrDefaultFloatTag(TFileHandle file, const std::string& name, const TTagControl& parent,
                                  float* values, int64_t count, float defaultValue);
  TTagError LoadOrDefaultWordTag(TFileHandle file, const std::string& name, const TTagControl& parent,
                                 uint16_t* values, int64_t count, uint16_t defaultValue);
  TTagError LoadOrDefaultByteTag(TFileHandle file, const std::string& name, const TTagControl& parent,
                                 uint8_t* values, int64_t count, uint8_t defaultValue);
  TTagError LoadOrDefaultBoolTag(TFileHandle file, const std::string& name, const TTagControl& parent,
                                 bool* values, int64_t count, bool defaultValue);
  TTagError LoadOrDefaultAnsiStringTag(TFileHandle file, const std::string& name, const TTagControl& parent,
                                       std::string& text, const std::string& defaultValue);

  /// name + "_D" as doubles if present, else name as floats widened to double.
  TTagError LoadDoubleOrFloatTag(TFileHandle file, const std::string& name, const TTagControl& parent,
                                 double* values, int64_t count = 1);
  TTagError LoadOrDefaultDoubleOrFloatTag(TFileHandle file, const std::string& name,
                                          const TTagControl& parent, double* values, int64_t count,
                                          double defaultValue);

  /// Clears strings, then fills them from a list written by SaveStringList.
  TTagError LoadStringList(TFileHandle file, const std::string& name, const TTagControl& parent,
                           std::vector<std::string>& strings);
  /// A missing tag leaves list untouched; otherwise the list is cleared and filled.
  TTagError LoadList(TFileHandle file, const std::string& name, const TTagControl& parent, TIntList& list);

  TTagError MoveToTagBegin(TFileHandle file) const;
  TTagError MoveToTagEnd(TFileHandle file) const;
  bool IsFilePointerInsideTagArea(TFileHandle file) const;

  // --- Whole trees -----------------------------------------------------------------------------

  /// Reads the tag at the current position with all its children and data into this node.
  TTagError LoadTagListFromFile(TFileHandle file);
  /// FindTag, then LoadTagListFromFile for a list tag (-1 when the tag found isn't a list).
  TTagError LoadTagListByTagName(TFileHandle file, const std::string& name, const TTagControl& parent);
  /// Opens the file, checks the identification (-4), and loads the root tag at offset 8.
  TTagError LoadTagListByFileName(const std::string& fileName, const std::string& identification);
  /// Writes this node and its subtree to the file; always 1.
  TTagError SaveTagListToFile(TFileHandle file);
  /// Creates fileName with the identification and this tree as root (safe overwrite of an old file).
  TTagError SaveTagListToFileByName(const std::string& fileName, const std::string& identification);

  // --- The in-memory tree ----------------------------------------------------------------------

  TTagError SetDoubleTag(const double* values, int64_t count);
  TTagError SetFloatTag(const float* values, int64_t count);
  TTagError SetIntTag(const int32_t* values, int64_t count);
  TTagError SetBoolTag(const bool* values, int64_t count);
  TTagError SetByteTag(const uint8_t* values, int64_t count);
  TTagError SetAnsiStringTag(const std::string& text);
  TTagError SetOneDoubleTag(double value) { return SetDoubleTag(&value, 1); }
  TTagError SetOneFloatTag(float value) { return SetFloatTag(&value, 1); }
  TTagError SetOneIntTag(int32_t value) { return SetIntTag(&value, 1); }
  TTagError SetOneBoolTag(bool value) { return SetBoolTag(&value, 1); }
  TTagError SetOneAnsiStringTag(const std::string& text) { return SetAnsiStringTag(text); }

  TTagError GetDoubleTag(double* values, int64_t count) const;
  TTagError GetFloatTag(float* values, int64_t count) const;
  TTagError GetIntTag(int32_t* values, int64_t count) const;
  TTagError GetBoolTag(bool* values, int64_t count) const;
  /// The first string of the block.
  TTagError GetAnsiStringTag(std::string& text) const;
  /// All strings of the block in a row (a string list's "Strings").
  TTagError GetAnsiStringsTag(std::vector<std::string>& strings) const;

  /// Child by "|"-separated path; only the first child of a name is followed. Null when not found.
  TTagControl* FindTagInList(const std::string& path) const;
  bool IsTagInList(const std::string& path) const { return FindTagInList(path) != nullptr; }

  TTagError GetDoubleTagInList(const std::string& path, double& value) const;
  TTagError GetFloatTagInList(const std::string& path, float& value) const;
  TTagError GetIntTagInList(const std::string& path, int32_t& value) const;
  TTagError GetBoolTagInList(const std::string& path, bool& value) const;
  TTagError GetAnsiStringTagInList(const std::string& path, std::string& value) const;
  void GetDoubleTagInListOrDefault(const std::string& path, double& value, double defaultValue) const;
  void GetFloatTagInListOrDefault(const std::string& path, float& value, float defaultValue) const;
  void GetIntTagInListOrDefault(const std::string& path, int32_t& value, int32_t defaultValue) const;
  void GetBoolTagInListOrDefault(const std::string& path, bool& value, bool defaultValue) const;
  void GetAnsiStringTagInListOrDefault(const std::string& path, std::string& value,
                                       const std::string& defaultValue) const;

  /// Adds a tag at a "|"-separated path, creating missing list levels; returns the new node.
  /// Throws when this node is no list or the name exists already.
  TTagControl* AddSubTag(const std::string& path, TTagKind kind, const void* data = nullptr,
                         int64_t count = 1);
  void DeleteAllChildren();
  /// Copies begin, end, kind, name, the data block (when the source's isn't empty) and deep copies children.
  void CopyFrom(const TTagControl& source);

private:
  /// Reads the header at position without moving the file position; headerEnd receives where the header
  /// ends.
  TTagError ReadTagAt(TFileHandle file, int64_t position, std::string& name, int64_t& headerEnd);
  TTagError SaveValueTag(TFileHandle file, const std::string& name, TTagKind kind, const void* values,
                         int64_t bytes);
  template <typename T>
  TTagError LoadValueTag(TFileHandle file, const std::string& name, const TTagControl& parent, T* values,
                         int64_t count);
  template <typename T>
  TTagError LoadOrDefaultValueTag(TFileHandle file, const std::string& name, const TTagControl& parent,
                                  T* values, int64_t count, T defaultValue);
  TTagError LoadTagListFromFileAtDepth(TFileHandle file, int64_t fileSize, int depth);
  TTagError SetBlock(TTagKind kind, const void* values, int64_t bytes);
  TTagError GetBlock(TTagKind kind, void* values, int64_t bytes) const;

  int64_t FBegin = 0;
  int64_t FEnd = 0;
  TTagKind FKind = TTagKind::TagList;
  std::unique_ptr<TChildren> FChildren;
  std::string FName;
  std::vector<uint8_t> FData;
  bool FHasData = false;
};

/// Position of the root tag of every tag file: just behind the identification.
inline constexpr int64_t kTagFileRootOffset = 8;

/// Opens a tag file for reading, checks its identification against any of the accepted ones and reads the
/// root tag's header into root. Returns 1, -6 (can't open), -4 (identification differs) or -1 (no root);
/// file is set only on success, and the identification read is returned in foundIdentification.
TTagError OpenTagFileForReading(const std::string& fileName, const std::vector<std::string>& accepted,
                                TFileHandle& file, TTagControl& root,
                                std::string* foundIdentification = nullptr);
