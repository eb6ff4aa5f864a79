// The filter manager of older projects: lists the filter data objects that work on one graph and
// re-extracts them into their target images. Its stored tags are kept as they were read and written back
// (with the graph it shows), so that an old project loses nothing.
#pragma once

#include "common/Tagcontrol.h"
#include "project/Viewerbase.h"

#include <cstdint>
#include <string>

class TDGraph;

class TVFilterManagerForm : public TVCustomForm {
public:
  static constexpr const char* kClassName = "TVFilterManagerForm";
  static constexpr const char* kCaption = "Filter Manager (Old)";
  static constexpr int32_t ThisVersion = 1;

  TVFilterManagerForm();
  static void RegisterViewer();
  /// True for exactly one graph.
  static bool IsInputIDListOkayForShowViewer(TProject& project, const TIntList& ids);

  std::string GetClassNameA() const override { return kClassName; }
  int32_t GetGraphID() const { return FGraphID; }
  /// The filter data objects whose input is the graph, in the project's order.
  TIntList GetFilterIDs() const;
  /// Runs every filter of the graph over its spectra and writes the outputs into the linked targets (an
  /// image of the graph's grid, or a profile graph of a line scan); a missing or mismatched target is made
  /// anew and linked. Returns the targets written; throws OrvexException naming a filter whose range can't
  /// be used. Empty after a cancel or without filters.
  TIntList ReExtractFilters();

  /// The base group, then "TVFilterManagerForm" as read, with "GraphID" brought up to date.
  TTagError SaveViewerToTagFile(TFileHandle file) override;
  TTagError LoadViewerFromTagFile(TFileHandle file, const TTagControl& parent) override;
  void DoDataUpdate() override;
  bool IsDataUsed(int32_t id) const override { return id != 0 && id == FGraphID; }
  void AddToID(int32_t delta) override { TData::SafeAddToDataID(FGraphID, delta); }
  bool AddDataID(int32_t id) override;
  void ExchangeID(int32_t oldID, int32_t newID) override;
  void DataChanged(TData* data, TDataChangeInfo info) override;
  void BeforeClearProject() override { FGraphID = 0; }
  /// Re-extracts the filters.
  TIntList ExtractViewerObjects(std::string& reason) override;

private:
  TDGraph* FindGraph() const;

  int32_t FGraphID = 0;
  TTagControl FTree{kClassName, TTagKind::TagList}; ///< the group as stored
};
