// Masks over the points of a spectrum: which spectral points take part in a calculation (or which items of
// another list are selected). A set of equally long bool arrays of which one is current; changes reach the
// owning tool and the graph viewer's mask bands, and a mask can be extracted as a graph of zeros and ones.
// Masks also read and write a text form over the graph's spectral axis.
#pragma once

#include "data/Dcustom.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

/// What a mask needs of the tool that owns it.
class IGraphMaskOwner {
public:
  virtual ~IGraphMaskOwner() = default;
  /// The project the tool works on.
  virtual IDataProject* GetMaskProject() = 0;
  /// True between the tool's Init and CleanUp.
  virtual bool IsMaskOwnerActive() const = 0;
};

/// What a mask needs of the graph viewer that shows its bands; the multi-graph viewer implements it.
class IGraphMaskViewer {
public:
  virtual ~IGraphMaskViewer() = default;
  /// Shows mask (one flag per point of the graph's spectrum) as band number bandIndex over the graph.
  /// firstPoint 0 and lastPoint -1 mean the whole spectrum.
  virtual void SetMultiMask(int32_t graphID, int bandIndex, int firstPoint, int lastPoint,
                            const bool* mask) = 0;
  virtual void HideMarker() = 0;
};

/// An integer taken from a control of the tool (a range edit, a value edit) at the moment it is needed.
using TIntValueSource = std::function<int()>;
/// Called with the current mask index after every change.
using TMaskChangeEvent = std::function<void(int)>;

/// The spectral axis of a graph in one unit: the value of every point, the unit's name. Values is empty for
/// a graph without spectral transformation.
struct TGraphMaskAxis {
  std::vector<double> Values;
  std::string Unit;
};

/// The axis of graph graphID in unit (empty: the axis's current unit). False with a reason when the graph
/// isn't there or the unit is not one of its interpretation's; a graph without spectral transformation
/// gives true and an empty axis.
bool GetGraphMaskAxis(IDataProject& project, int32_t graphID, const std::string& unit, TGraphMaskAxis& axis,
                      std::string& error);

/// Reads a mask text into mask (size entries): comma-separated items, each "lo:hi" (points whose axis value
/// lies in the closed range, in the axis's unit), "lo:hi px" (point indices, inclusive), "all", "none" or
/// "graph:ID" (an extracted mask graph of the same length: values of at least 0.5 are set); the mask is
/// their union. False with a one-line reason, and mask unchanged, for an unreadable item, lo above hi, an
/// item that selects no point, a unit range on a graph without axis, or an unusable mask graph. project may
/// be null when the text holds no "graph:" item.
bool ParseGraphMaskText(const std::string& text, const TGraphMaskAxis& axis, IDataProject* project,
                        std::vector<bool>& mask, std::string& error);
/// The text of mask: "all", "none", or one item per run of set points, "lo:hi" at full precision in the
/// axis's unit when the axis selects exactly that run, "first:last px" otherwise. Reads back to the same
/// mask.
std::string FormatGraphMaskText(const bool* mask, int size, const TGraphMaskAxis& axis);

/// The mask a tool's mask parameter gives for input graph graphID: text read over the graph's axis in unit
/// (empty: the axis's current unit), one flag per spectral point. This is the check a tool runs on its mask
/// parameter before a calculation: false with a one-line reason when the graph, the unit or the text is
/// unusable.
bool ReadGraphMaskForGraph(IDataProject& project, int32_t graphID, const std::string& text,
                           const std::string& unit, std::vector<bool>& mask, std::string& error);

/// The masks of one tool.
class TGraphMask {
public:
  TGraphMask(IGraphMaskOwner* dialog, int maskSize, int numberOfMasks, int32_t graphID);
  TGraphMask(const TGraphMask&) = delete;
  TGraphMask& operator=(const TGraphMask&) = delete;
  virtual ~TGraphMask();

  /// @{ Links.
  void SetGraphID(int32_t id) { FGraphID = id; }
  int32_t GetGraphID() const { return FGraphID; }
  void SetGraphFormInfo(IGraphMaskViewer* form, int index);
  void SetOnMaskChangeEvent(TMaskChangeEvent event) { FOnMaskChange = std::move(event); }
  void SetRangeControls(TIntValueSource lower, TIntValueSource upper);
  void SetOneValueControls(TIntValueSource value) { FOneValue = std::move(value); }
  /// @}

  /// @{ Sizes: no effect when unchanged; otherwise all masks are dropped and, when both numbers are not 0,
  /// made again (cleared).
  void SetNumberOfMasks(int n);
  void SetMaskSize(int n);
  int GetNumberOfMasks() const { return FNumberOfMasks; }
  int GetMaskSize() const { return FMaskSize; }
  /// @}

  /// @{ Selection and plain access to the arrays.
  void SetCurrentMaskIndex(int index);
  int GetCurrentMaskIndex() const { return FCurrentMaskIndex; }
  /// Mask i, null outside the set.
  bool* GetMask(int index);
  const bool* GetMask(int index) const;
  bool* GetCurrentMask() { return GetMask(FCurrentMaskIndex); }
  /// Copies mask size values into the current mask, without change notification.
  void SetCurrentMask(const bool* values);
  /// Copies mask size values into mask i when the size is at least 1, i lies in the set and values isn't
  /// null.
  void CopyCompleteMaskFrom(int index, const bool* values);
  /// True when mask i holds the same values as the array; false for a null array or an i outside the set.
  bool IsMaskEqual(const bool* values, int index) const;
  /// Copies values into the current mask, then reports the change.
  void SetMask(const bool* values);
  /// Copies mask i into values.
  void CopyMaskToArray(bool* values, int index) const;
  /// @}

  /// @{ Changes of the current mask, or of every mask while the apply-to-all flag is set; each reports the
  /// change afterwards. Invalid points and ranges change nothing.
  void SetAll();
  void ClearAll();
  void InvertAll();
  void Set(int index);
  void Clear(int index);
  /// Points first to last inclusive.
  void SetMaskRange(int first, int last);
  void ClearMaskRange(int first, int last);
  /// Points first to last set, all others cleared.
  void CropMaskRange(int first, int last);
  /// @}

  /// @{ Checks.
  bool IsMaskCleared() const;
  bool IsRangeValid(int first, int last) const;
  bool IsValueValid(int index) const;
  /// The values of the linked range controls: lower from 0 to below upper and below the size, upper at most
  /// the size (the upper control is an exclusive bound).
  bool IsRangeValid() const;
  /// The value of the linked one-value control lies from 0 to size - 1.
  bool IsValueValid() const;
  /// True when points first to last of the current mask all have value; an empty range (last below first)
  /// gives true, a range reaching outside the mask false.
  bool IsRangeFilledWithValue(int first, int last, bool value) const;
  /// @}

  void SetApplyToAll(bool on) { FApplyToAll = on; }
  bool GetApplyToAll() const { return FApplyToAll; }
  void SetRememberedMaskIndex(int index) { FRememberedMaskIndex = index; }
  int GetRememberedMaskIndex() const { return FRememberedMaskIndex; }
  void SetMaskName(const std::string& name) { FMaskName = name; }
  const std::string& GetMaskName() const { return FMaskName; }

  /// Adds, for the current mask or with the apply-to-all flag for every mask, a single-spectrum float graph
  /// of zeros and ones shaped like the graph of the graph ID, captioned with the mask name (and its index
  /// when there are several masks), to the dialog's project or else the main project. Returns the new IDs;
  /// nothing is made without a graph of the graph ID.
  std::vector<int32_t> ExtractMask();
  /// Tells the change event and the linked viewer.
  void MaskChanged();

  /// @{ Text form over the spectral axis of the graph of the graph ID, in the axis's current unit or in the
  /// named one. SetMaskFromText changes the current mask (every mask with the apply-to-all flag) and
  /// reports the change; on failure it leaves the masks alone and says why.
  bool SetMaskFromText(const std::string& text, std::string& error, const std::string& unit = "");
  /// Empty with a reason in error when the axis can't be had.
  std::string GetMaskText(int index, std::string& error, const std::string& unit = "") const;
  /// @}

  /// @{ Toolbar buttons. Each acts only while the owning dialog is active and its linked control values are
  /// valid. tag is the mask the button works on; -1 means all masks (with the apply-to-all flag set for the
  /// operation). A button on one mask makes it current for the operation, then returns to the index that
  /// was current before. The range buttons take lower to upper - 1: the upper edit is exclusive.
  void SetButtonClick(int tag);
  void ClearButtonClick(int tag);
  void SetAllButtonClick(int tag);
  void ClearAllButtonClick(int tag);
  void InvertAllButtonClick(int tag);
  void SetRangeButtonClick(int tag);
  void ClearRangeButtonClick(int tag);
  void CropRangeButtonClick(int tag);
  void ExtractButtonClick(int tag);
  /// @}

private:
  void FreeMasks();
  void AllocateMasks();
  /// The masks a change works on: all with the apply-to-all flag, else the current one.
  template <class F>
  void ForEachTarget(F&& f);
  /// Runs a button's operation on the mask of the tag.
  void RunButton(int tag, bool (TGraphMask::*check)() const, const std::function<void()>& operation);
  bool AlwaysValid() const { return true; }
  IDataProject* Project() const;

  IGraphMaskOwner* FDialog = nullptr;
  int FMaskSize = 0;
  int FNumberOfMasks = 0;
  int FCurrentMaskIndex = 0;
  std::vector<std::unique_ptr<bool[]>> FMasks;
  int32_t FGraphID = 0;
  TIntValueSource FLower, FUpper, FOneValue;
  IGraphMaskViewer* FGraphForm = nullptr;
  int FGraphFormIndex = -1;
  TMaskChangeEvent FOnMaskChange;
  bool FApplyToAll = false;
  int FRememberedMaskIndex = 0;
  std::string FMaskName = "Mask";
};
