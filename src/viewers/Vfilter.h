// The filter viewer: a list of graph filters on one input graph whose results it keeps up to date, also
// while a measurement still writes into the graph. A team of calculation threads lives as long as the
// viewer is live and recomputes only what changed: every valid pixel for a filter whose settings changed,
// only the changed pixels (marked through the graph's data exchange) for the others. The values of the
// spectrum under the space cursor (averaged over a square of neighbours) are kept for the filter list.
#pragma once

#include "data/Dataexchange.h"
#include "data/Graphfilter.h"
#include "project/Viewerbase.h"

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

class TDGraph;
class TMCC;

/// What the values of the input become: a single spectrum's values, a line scan's profile, a map's images.
enum class TFilterRunMode : int32_t { None = 0, SingleSpectrum = 1, LineScan = 2, Image = 3 };

class TVFilterForm : public TVCustomForm {
public:
  static constexpr const char* kClassName = "TVFilterForm";
  static constexpr const char* kCaption = "Filter Viewer";
  static constexpr int32_t ThisVersion = 1;
  /// Ids of the control interface's parameters.
  enum TParameterId : int32_t { kSpatialAverageSize = 1, kShowInputGraph = 2, kQuickFilterFile = 3 };
  /// @{ Status texts.
  static constexpr const char* kNoGraphData = "No Graph Data";
  static constexpr const char* kNoCursorData = "No Cursor Data";
  static constexpr const char* kReady = "Ready";
  static constexpr const char* kExtracting = "Extracting";
  static constexpr const char* kMultipleFilters = "<Multiple Filters>";
  static constexpr const char* kNoFilterSelected = "No Filter Selected";
  /// @}

  TVFilterForm();
  ~TVFilterForm() override;
  /// Registers the class with its show functions.
  static void RegisterViewer();
  /// True for exactly one graph.
  static bool IsInputIDListOkayForShowViewer(TProject& project, const TIntList& ids);

  std::string GetClassNameA() const override { return kClassName; }

  // --- Input ---------------------------------------------------------------------------------------

  /// Takes graphID as the input (0: none): the team stops, every filter is set to the new graph and asks
  /// for a full recalculation, the team starts again when the viewer is live. False when it isn't a graph.
  bool InitializeWithNewInputGraph(int32_t graphID);
  int32_t GetGraphID() const { return FGraphID; }
  TFilterRunMode GetRunMode() const;
  /// "Ready", "Extracting", "No Graph Data" or "No Cursor Data".
  std::string GetStatusText() const;

  // --- Filters -------------------------------------------------------------------------------------

  /// A new filter of kind (see TGraphFilterKind) at the spectral cursor (InitializeFilter); its index.
  int32_t CreateFilter(int32_t kind);
  /// Minimum, maximum and their positions at once; the index of the first.
  int32_t CreateAllFourMinMax();
  /// Position from the spectral cursor of the input's axis (the axis centre without one), width a twentieth
  /// of the axis, both in the axis's standard unit.
  void InitializeFilter(TGraphFilter& filter) const;
  int32_t GetFilterCount() const;
  /// A copy of the filter's working settings.
  TGraphFilterInfo GetFilterInfo(int32_t index) const;
  /// Replaces the working settings after checking them; the problem text (nothing changed) or empty. The
  /// filter is recalculated on every valid pixel.
  std::string UpdateFilter(int32_t index, const TGraphFilterInfo& info);
  void RenameFilter(int32_t index, const std::string& caption);
  /// Deletes the filters (indices in any order; bad ones are ignored).
  void DeleteFilters(const TIntList& indices);
  void DeleteSelectedFilters();
  /// @{ Selection.
  void SetFilterSelected(int32_t index, bool selected);
  bool IsFilterSelected(int32_t index) const;
  void SelectAllFilters(bool selected);
  TIntList GetSelectedFilters() const;
  /// "<Multiple Filters>", "No Filter Selected" or the caption of the one selected filter.
  std::string GetSelectionText() const;
  /// @}
  /// @{ A filter linked to the spectral cursor follows it: a cursor move sets its position.
  void ChangeListenToPositionMode(int32_t index, bool listen);
  bool IsListeningToPosition(int32_t index) const;
  /// Moves the spectral cursor to the filter's position.
  void SendFilterPositionToCursor(int32_t index);
  /// True when the spectral cursor lies in the filter's range.
  bool CursorIsPositionInFilterRange(int32_t index) const;
  /// @}

  // --- Results -------------------------------------------------------------------------------------

  /// The value of the filter for the spectrum under the space cursor, averaged over the spatial square.
  double GetLastValue(int32_t index) const;
  /// The filter's value at every pixel, x + y * sizeX (0 where not calculated).
  std::vector<float> GetResultValues(int32_t index) const;
  /// The object that shows the filter's values while the viewer is live: an image for a map, a profile
  /// graph for a line scan; 0 otherwise.
  int32_t GetResultObjectID(int32_t index) const;
  /// Number of pixel calculations (one spectrum, one filter) since the viewer was made.
  int64_t GetCalculationCount() const { return FCalculationCount.load(); }

  // --- Live calculation ----------------------------------------------------------------------------

  /// Live: the team of threads runs and keeps the results up to date (the workbench's window makes the
  /// viewer live; tests and scripts may too). Off: the team stops, the result objects go.
  void SetLive(bool live);
  bool IsLive() const { return FMCC != nullptr; }
  /// Waits until the team has worked through every change so far and the results reached the project
  /// (serving the main thread's queue meanwhile); false after timeoutMs.
  bool WaitUntilCalculated(int timeoutMs);
  /// A writer's news: its spectra changed (graph pixels), recalculated at the next run.
  void PixelsChanged() { Wake(); }

  // --- Extraction and quick filters ----------------------------------------------------------------

  /// Permanent results of all or of the selected filters (an image or profile per filter, a text of the
  /// values for a single spectrum), added to the project; their IDs. Throws OrvexException naming the
  /// filter whose range can't be used; empty after a cancel.
  TIntList ExtractFilters(bool all);
  /// Writes all or the selected filters; empty, or the failure text.
  std::string SaveQuickFilters(const std::string& fileName, bool selectedOnly) const;
  /// Replaces the filters by those of the file; empty, or the failure text (nothing changed).
  std::string LoadQuickFilters(const std::string& fileName);

  // --- Viewer --------------------------------------------------------------------------------------

  void CFICreateParameters(TUserParameterAdministrator& cfi) override;
  bool CFIParameterIsNewValueAllowed(const TUserParameterList& changed) override;
  void CFIParameterChanged(const TUserParameterList& changed) override;
  int32_t GetSpatialAverageSize() const;
  bool GetShowInputGraph() const;
  /// The base group, then "TVFilterForm": "Version", "GraphID", "SpectralCursorID", "GraphImageID",
  /// "FilterIDList", "NumberOfFilters" and "Filter0", "Filter1", ... with each filter's settings.
  TTagError SaveViewerToTagFile(TFileHandle file) override;
  TTagError LoadViewerFromTagFile(TFileHandle file, const TTagControl& parent) override;
  void DoDataUpdate() override;
  bool IsDataUsed(int32_t id) const override;
  void AddToID(int32_t delta) override;
  bool AddDataID(int32_t id) override;
  void ExchangeID(int32_t oldID, int32_t newID) override;
  void DataChanged(TData* data, TDataChangeInfo info) override;
  void BeforeClearProject() override;
  /// Live while shown in a window.
  void WindowAttached(bool attached) override { SetLive(attached); }
  /// Extracts all filters.
  TIntList ExtractViewerObjects(std::string& reason) override;

private:
  struct TFilterEntry;
  struct TRunItem;
  struct TRun;

  /// Wakes the team's first thread.
  void Wake();
  void StartStaticThread();
  void DeleteAndWaitForStaticThread();
  void MCCStaticThreadFunc(TMCC* mcc, int threadIndex);
  /// Steps 3 (thread 0): takes the marks and the changed filters into the run.
  void PrepareRun(TRun& run);
  void CalculateRange(TRun& run, int threadIndex, int threads, std::vector<float>& spectrum,
                      std::vector<float>& average);
  /// Step 6 (thread 0): stores the run's values, the cursor values, and tells the main thread.
  void FinishRun(TRun& run, std::vector<float>& spectrum, std::vector<float>& average);
  /// Main thread: the run's values into the result objects.
  void CalculationReadyMainThread();
  void CreateResultObjects();
  void DeleteResultObjects();
  void MarkAllFiltersChanged();
  TDGraph* FindGraph() const;
  int32_t FindSpectralCursorID() const;
  void UpdateCaption();
  void Changed();
  /// Main thread: the pixel under the space cursor for the team.
  void UpdateCursorPixel();

  int32_t FGraphID = 0;
  int32_t FSpectralCursorID = 0;
  int32_t FGraphImageID = 0;
  int32_t FSpaceCursorID = 0;
  uint64_t FNextKey = 1;
  std::vector<std::unique_ptr<TFilterEntry>> FFilters;
  mutable std::mutex FListLock; ///< guards FFilters' settings, values and flags against the team

  std::unique_ptr<TMCC> FMCC;
  std::unique_ptr<TRun> FRun;
  std::mutex FWakeLock;
  std::condition_variable FWakeCondition;
  bool FWakeFlag = false;
  bool FCursorMoved = true;
  std::atomic<uint64_t> FRequested{0}; ///< changes asked for
  std::atomic<uint64_t> FFinished{0};  ///< changes the results reached the project for
  std::atomic<uint64_t> FCalculated{0};
  std::atomic<int64_t> FCalculationCount{0};
  std::atomic<bool> FPosted{false};
  std::vector<uint8_t> FResultLineValid; ///< guarded by FListLock
  std::string FStatus;
  std::string FQuickFilterProblem; ///< why the last quick filter file named in the settings failed
  /// What the team reads instead of asking the project (whose lists the main thread changes meanwhile).
  TDGraph* FTeamGraph = nullptr;
  std::atomic<int32_t> FCursorX{-1}, FCursorY{-1}, FSpatial{2};
  /// False once the viewer goes: calls it posted to the main thread then do nothing.
  std::shared_ptr<bool> FAlive = std::make_shared<bool>(true);
};
