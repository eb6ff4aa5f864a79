// The graph viewer: up to twenty graphs (stacks of spectra) as curves over one x axis, each with its own y
// scale. Each stack shows the spectrum under the shared space cursor: the cursor's world position goes
// through the stack's space transformation to a column and a line, so an image of the same scan and this
// viewer always agree on the spectrum. The x axis is shown in the unit of the viewer's own copy of the
// first graph's x interpretation, so switching units here changes nothing elsewhere. The scene is drawn in
// window pixels: a plot area with a frame, the x axis below it, the active graph's y axis left of it, the
// curves clipped to the plot area, and the spectral cursor as a vertical line.
#pragma once

#include "common/numerics/Peakfind.h"
#include "opengl/Openglobjects.h"
#include "project/Graphmask.h"
#include "viewers/Vgraphic.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

class TDGraph;
class TDInterpretation;
class TOpenGLAxis;
class TOpenGLGraph;
class TOpenGLMarker;
class TOpenGLText;
class TUserParameterAdministrator;

/// One earlier zoom: x from, x to, y from, y to.
struct TZoomArea {
  double XFrom = 0, XTo = 1, YFrom = 0, YTo = 1;
  bool operator==(const TZoomArea&) const = default;
};

/// The zoom history of a graph: areas pushed in order, with a position to walk back and forth. A push
/// after walking back drops the areas ahead.
class TZoomStack {
public:
  void Push(const TZoomArea& area);
  /// The area before the current one; false at the start.
  bool Previous(TZoomArea& area);
  /// The area after the current one; false at the end.
  bool Next(TZoomArea& area);
  int Count() const { return static_cast<int>(FAreas.size()); }
  int Position() const { return FPosition; }
  void Clear();

private:
  std::vector<TZoomArea> FAreas;
  int FPosition = -1;
};

/// How a graph is drawn.
enum class TGraphViewerStyle : int32_t { Line = 0, Symbols = 1, LineAndSymbols = 2, Histogram = 3 };

/// The mouse modes: moving the x cursor, a mode a tool sets, zoom by rectangle, and mask drawing (handed
/// to the mask tool).
enum class TGraphMouseMode : int32_t { Cursor = 0, Tool = 1, Zoom = 2, Mask = 3 };

/// The default colours taken in turn for each graph added, as 0x00BBGGRR: red, blue, green, magenta, cyan,
/// orange, then darker ones.
class TColorList {
public:
  static int32_t Count();
  /// The colour of the index-th graph added (the list repeats).
  static uint32_t GetColor(int32_t index);
};

/// What the viewer keeps of one shown graph.
struct TGraphDrawInformation {
  int32_t GraphID = 0;
  float MaxY = 1; ///< y range asked for
  float MinY = 0;
  int32_t LineIndex = 0;   ///< line (y) of the spectrum shown
  int32_t ColumnIndex = 0; ///< column (x) of the spectrum shown
  float DisplayMaxY = 1;   ///< y range after cascading
  float DisplayMinY = 0;
  float Red = 1, Green = 1, Blue = 1, Alpha = 1;
  float AuxRed = 0, AuxGreen = 0, AuxBlue = 0, AuxAlpha = 0;
  TGraphViewerStyle GraphStyle = TGraphViewerStyle::Line;
  uint32_t LineColor = 0x000000FF; ///< 0x00BBGGRR
  uint32_t AuxColor = 0;
  float Transparency = 0;
  float AuxTransparency = 0;
  int32_t ScaleKindYAxis = 0; ///< 0 linear, 1 logarithmic
  int32_t PointStyle = 0;
  int32_t LineStyle = 0;
  float LineWidth = 1;
  float PointSize = 1;
  TZoomStack ZoomStack;

  /// The float colour from the stored colour and transparency (files of the first version kept floats).
  void OldVersionToCurrent();
  /// The stored colour and transparency from the float colour.
  void CurrentToOldVersion();
};

/// How the found peaks are labelled (the display part of the peak finder's panel).
struct TGraphPeakLabelOptions {
  bool AutoFindPeaks = true; ///< search again whenever a shown spectrum changes
  bool AllGraphs = true;     ///< every graph shown, else the active one only
  bool ShowLabels = true;
  bool ShowPixelUnit = false;       ///< labels give the pixel number instead of the position in the x unit
  bool ShowVertical = false;        ///< label texts turned upright
  int32_t Digits = 2;               ///< 0 … 8
  int32_t LineLength = 40;          ///< pixels, 0 … 200
  uint32_t LabelColor = 0x00C82878; ///< 0x00BBGGRR, a violet that no default graph colour takes
};

/// One label on view: the peak's place in window pixels (model coordinates, y upwards), the text, and the
/// graph and peak it belongs to.
struct TGraphPeakLabel {
  int32_t GraphIndex = 0;
  int32_t PeakIndex = 0;
  double X = 0, Y = 0;
  std::string Text;
};

class TVMultiGraphForm : public TVCustomGraphicForm, public IGraphMaskViewer, public IGraphMaskOwner {
public:
  static constexpr const char* kClassName = "TVMultiGraphForm";
  static constexpr const char* kCaption = "Graph Viewer";
  static constexpr int32_t ThisVersion = 1;
  static constexpr int32_t kMaxGraphs = 20;
  /// Points within this distance of zero relative wavenumber (1/cm) are left out of a y zoom that ignores
  /// the laser line.
  static constexpr double kRayleighHalfWidth = 50.0;
  /// Space above the curve for peak labels, as a fraction of the range.
  static constexpr double kPeakLabelExtra = 0.1;
  /// The plot area's distance from the window's edges, in pixels.
  static constexpr int kMarginLeft = 78, kMarginRight = 18, kMarginTop = 14, kMarginBottom = 48;
  /// At most this many peaks are labelled.
  static constexpr int32_t kMaxPeakLabels = 100;
  static constexpr const char* kPeakWarning = "Warning: >100 Peaks found. Showing first 100";
  /// Duration of the movement to a new x range.
  static constexpr double kXZoomAnimationMilliseconds = 250.0;
  /// Ids of the control interface's parameters.
  enum TParameterId : int32_t {
    kXUnit = 1,
    kSpectrumX,
    kSpectrumY,
    kActiveGraph,
    kXMinimum,
    kXMaximum,
    kYMinimum,
    kYMaximum,
    kAutoZoomOutX,
    kAutoZoomOutY,
    kScaleKindY,
    kOnlyOneYAxis,
    kCascadeGraphs,
    kCascadeDistance,
    kGraphStyle,
    kLineWidth,
    kPeakLabels,
    kMouseMode,
  };

  TVMultiGraphForm();
  ~TVMultiGraphForm() override;
  /// Registers the class with its show functions.
  static void RegisterViewer();
  /// From 1 to 20 ids, all of them graphs.
  static bool IsInputIDListOkayForShowViewer(TProject& project, const TIntList& ids);
  std::string GetClassNameA() const override { return kClassName; }

  // --- Graphs --------------------------------------------------------------------------------------

  /// Adds a graph with the next default colour (a histogram by its data category takes the histogram
  /// style); the first graph's x interpretation is copied as the viewer's own. False when it isn't a graph,
  /// is shown already or twenty are shown.
  bool AddGraphID(int32_t id);
  void DeleteGraphByID(int32_t id);
  bool IsGraphInViewer(int32_t id) const { return IndexOfGraphID(id) >= 0; }
  int32_t IndexOfGraphID(int32_t id) const;
  int32_t GetGraphCount() const { return static_cast<int32_t>(FGraphs.size()); }
  const TGraphDrawInformation& GetGraphInfo(int32_t index) const;
  TGraphDrawInformation& GraphInfo(int32_t index);
  /// True when every graph shown holds one spectrum only (stack navigation is off then).
  bool CheckForOnlySingleSpectra() const;

  /// @{ Rebuilding: everything (x values, spectra, scene); every spectrum; one spectrum; the axes.
  void SetAll();
  void SetAllGraphs();
  void SetSingleGraph(int32_t index);
  void SetCoordinateSystem(int32_t index);
  /// @}
  /// The spectrum of graph index on view (empty when its position lies outside the stack).
  const std::vector<float>& GetShownSpectrum(int32_t index) const;
  /// The x values of graph index in the current x unit.
  const std::vector<double>& GetXValues(int32_t index) const;
  /// True when graph index shows a spectrum (the space cursor lies inside its stack).
  bool HasSpectrum(int32_t index) const;

  // --- Zoom ----------------------------------------------------------------------------------------

  void ZoomOutX();
  /// Fits the y range of graph index to its spectrum within the x zoom (see GetMinMaxYGraphValue); an
  /// index out of range or no data leaves it; a logarithmic range outside 1e-31 … 1e36 too.
  void ZoomOutY(int32_t index, bool ignoreRayleigh);
  void ZoomOutAndSetAll(bool ignoreRayleigh);
  void ZoomOutXAndSetAll(bool ignoreRayleigh);
  void ZoomOutYAndSetAll(bool ignoreRayleigh);
  /// Runs the automatic zoom that the flags ask for; false when none ran.
  bool CheckAndDoAutomaticZoom();
  /// Minimum and maximum of the finite values of graph index inside the x zoom; with ignoreRayleigh,
  /// points within 50 rel. 1/cm of the laser line are left out (spectral axes only). False without data.
  bool GetMinMaxYGraphValue(double& minimum, double& maximum, bool ignoreRayleigh, int32_t index) const;
  /// The extra space above the curve for peak labels (a fraction of the range; 0 without labels).
  double GetExtraYForPeakLabels(int32_t index) const;
  /// Sets the x range (current unit); refused (false) when not finite or empty.
  bool SetXRange(double minimum, double maximum);
  /// Sets the y range of graph index; refused when not finite, empty, or not positive on a log axis.
  bool SetYRange(int32_t index, double minimum, double maximum);
  /// Moves from the present x range to [from, to] in kXZoomAnimationMilliseconds, driven by the window's
  /// timer through AnimationTimerTimer; without a window the range is set at once. The new range is
  /// pushed to the zoom stacks when the movement ends.
  void AnimateXZoom(double from, double to);
  bool IsXZoomAnimating() const { return FAnimating; }
  /// One step of the movement at the present time.
  void AnimationTimerTimer();
  /// The movement at elapsed milliseconds after its start (eased; the end range exactly from the
  /// duration on).
  void AnimateXZoomStep(double elapsedMilliseconds);
  void SetAllMinYandMaxYEqual();
  /// All graphs share the smallest MinY and the greatest MaxY.
  void EqualizeMinMaxY();
  void EqualizeScaleYAxisKind();
  /// The display ranges from the ranges, with cascading.
  void CalculateCascadeValues();
  /// Pushes the present x and y zoom of every graph to its zoom stack.
  void AddCurrentAreaToZoomStacks();
  /// Walks the zoom stack of every graph back or forth; false when the active graph's stack can't.
  bool PreviousZoom();
  bool NextZoom();
  double GetMinXInterpretation() const { return FMinXInterpretation; }
  double GetMaxXInterpretation() const { return FMaxXInterpretation; }

  // --- Active graph, stack position, units ---------------------------------------------------------

  void ChangeAKGraphIndex(int32_t index, bool update = true);
  int32_t GetAKGraphIndex() const { return FAKGraphIndex; }
  void ToggleToNextGraphInList();
  void ToggleToPreviousGraphInList();
  /// Moves the shared space cursor to the world position of pixel (x, y) of graph index; the graphs
  /// follow through the cursor's change. False for a bad index or a pixel outside the stack.
  bool ChangeSpacePosition(int32_t index, int32_t x, int32_t y, int32_t z = 0);
  /// Steps the active graph's spectrum by whole pixels (the arrow keys), moving the shared cursor.
  void StepSpectrum(int32_t dx, int32_t dy);
  /// Switches the viewer's x unit; the range on view is converted so that the same part stays in view.
  /// False for an index outside the unit list.
  bool ChangeXUnitIndex(int32_t index);
  int32_t GetXUnitIndex() const;
  /// The unit names of the viewer's x interpretation (empty without one).
  std::vector<std::string> GetXUnitNames() const;
  std::string GetXUnitName() const;
  void ChangeGraphColor(int32_t index, uint32_t color);
  /// A width of 1 becomes 2, one of 2 or more becomes 1 (active graph).
  void ToggleGraphLineWidth();

  // --- Cursor and mouse ----------------------------------------------------------------------------

  void SetGraphMouseMode(TGraphMouseMode mode);
  TGraphMouseMode GetGraphMouseMode() const { return FMouseMode; }
  /// Back to cursor mode, or to mask mode while a mask tool keeps it so.
  void ResetGraphMouseMode();
  /// Moves the spectral cursor to x (current unit).
  void SetCursor(double x);
  /// The spectral cursor in the current x unit (NaN without one).
  double GetCursorX() const;
  /// The interpreted position of the cursor and the active graph's value there.
  std::string GetInterpretDataAtCursorPosition() const;
  const std::string& GetStatusText() const { return FStatusText; }
  /// The x and y of a window pixel for the active graph (false outside the plot area).
  bool WindowToData(int windowX, int windowY, double& x, double& y) const;
  /// The window pixel of x (current unit) and of value y of graph index.
  double XToWindow(double x) const;
  double YToWindow(int32_t index, double y) const;

  // --- Peaks ---------------------------------------------------------------------------------------

  /// The peak finder on or off; while on, the shown spectra are searched and their peaks labelled
  /// (this is the PeakLabels setting, which also leaves room above the curves for the labels).
  void SetPeakLabels(bool value);
  bool GetPeakLabels() const { return FPeakLabels; }
  /// The settings of the search and of the labels; call PeakOptionsChanged after changing them.
  TPeakFindControlStruct& PeakControl() { return FPeakControl; }
  TGraphPeakLabelOptions& PeakLabelOptions() { return FPeakOptions; }
  void PeakOptionsChanged();
  /// Searches the shown spectrum of graph index with the viewer's settings; the graph's own peaks
  /// (added by hand) stay. False when the graph shows no spectrum or the search found nothing to do.
  bool FindPeak(int32_t index);
  /// Searches every graph the options name (all, or the active one) and labels anew.
  void FindAllPeaks();
  /// The peaks of graph index in pixel order, found and added by hand.
  const TPeakInformationList& GetPeaks(int32_t index) const;
  /// The number of peaks over all graphs.
  int32_t GetNumberOfPeaks() const;
  /// The labels on view (at most kMaxPeakLabels).
  const std::vector<TGraphPeakLabel>& GetPeakLabelList() const { return FPeakLabelList; }
  /// Adds a peak by hand to the active graph at x (x unit) with height y; it stays through every new
  /// search. False without a spectrum or for an x outside the axis.
  bool AddPeak(double x, double y);
  /// The active graph's peaks as the delete list shows them: position and height.
  std::vector<std::string> GetPeakDescriptions() const;
  /// Deletes peak index of the active graph (a peak added by hand for good). False for a bad index.
  bool DeletePeak(int32_t index);
  /// The peak table of graph index: a header line, then one peak a line.
  std::string GetPeakTableText(int32_t index) const;
  /// A text object "Peak Table (" + caption + ")" for each graph with peaks; their IDs.
  std::vector<int32_t> ExtractPeakTable();
  /// The peak finder's panel: the search and label settings and the commands "Add Peak ...",
  /// "Delete Peak ..." and "Extract Peak Table".
  TUserParameterAdministrator* GetPeakCFI() const { return FPeakCFI.get(); }
  /// The caption of that panel.
  std::string GetPeakPanelCaption() const;

  // --- Masks ---------------------------------------------------------------------------------------

  /// Shows mask as band bandIndex over graph graphID (a null mask removes the band).
  void SetMultiMask(int32_t graphID, int bandIndex, int firstPoint, int lastPoint, const bool* mask) override;
  /// Hides the rectangle drawn while a mask range is dragged.
  void HideMarker() override;
  /// Removes every band of graph graphID (0: of all graphs).
  void ClearMultiMasks(int32_t graphID = 0);
  /// The band objects of graph index, one per band shown.
  std::vector<TOpenGLMultiMask*> GetMaskBands(int32_t index) const;
  /// The mask that mask drawing (mouse mode 3) changes, and whether that mode stays after a reset. A
  /// tool that gives its mask here must take it back (null) before the mask goes.
  void SetMaskTool(TGraphMask* mask, bool keepMaskMode = true);
  TGraphMask* GetMaskTool() const { return FMaskTool; }
  /// Gives mask, whose graph this viewer shows, the viewer's range and value: its range buttons take the
  /// points on view, its one-value buttons the point under the x cursor. A tool does this for a mask it
  /// hands to SetMaskTool.
  void LinkMaskControls(TGraphMask& mask);
  /// A mask of the viewer's own over the active graph, shown as its band and drawn in mask mode.
  TGraphMask* CreateGraphMaskForCurrentGraph();
  void DeleteGraphMask();
  /// Mask drawing clears instead of setting points.
  void SetMaskErase(bool erase);
  bool GetMaskErase() const { return FMaskErase; }
  /// Sets (or with the erase toggle clears) the points of the mask tool's graph whose x lies between x0
  /// and x1 (x unit). False without a mask tool or when no point lies there.
  bool DoMaskChange(double x0, double x1);
  // IGraphMaskOwner
  IDataProject* GetMaskProject() override;
  bool IsMaskOwnerActive() const override { return true; }

  // --- Extraction and export -----------------------------------------------------------------------

  /// A new graph with the active spectrum alone, added to the project; its ID (0 when there is none).
  int32_t ExtractGraph();
  /// The x column and one y column for each graph, tab separated, with a header line.
  std::vector<std::string> GetASCIIDataStringList() const;
  TIntList ExtractViewerObjects(std::string& reason) override;

  // --- Settings of the flags -----------------------------------------------------------------------

  bool GetOnlyOneYAxis() const { return FOnlyOneYAxis; }
  void SetOnlyOneYAxis(bool value);
  bool GetCascadeGraphs() const { return FCascadeGraphs; }
  void SetCascadeGraphs(bool value);
  double GetCascadeDistance() const { return FCascadeDistance; }
  void SetCascadeDistance(double value);
  bool GetAutoZoomOutX() const { return FAutoZoomOutX; }
  bool GetAutoZoomOutY() const { return FAutoZoomOutY; }
  void SetAutoZoomOut(bool x, bool y);
  bool GetChangeGraphSimultaneously() const { return FChangeGraphSimultaneously; }
  void SetChangeGraphSimultaneously(bool value) { FChangeGraphSimultaneously = value; }
  int32_t GetXInterpretationID() const { return FXInterpretationID; }
  int32_t GetXCursorID() const { return FXCursorID; }
  int32_t GetSpaceCursorID() const { return FSpaceCursorID; }

  // --- Viewer --------------------------------------------------------------------------------------

  void CFICreateParameters(TUserParameterAdministrator& cfi) override;
  void CFIParameterChanged(const TUserParameterList& changed) override;
  /// The base group, then "TVMultiGraphForm" with the viewer's fields and one list per graph value.
  TTagError SaveViewerToTagFile(TFileHandle file) override;
  TTagError LoadViewerFromTagFile(TFileHandle file, const TTagControl& parent) override;
  void DoDataUpdate() override;
  bool IsDataUsed(int32_t id) const override;
  void AddToID(int32_t delta) override;
  bool AddDataID(int32_t id) override { return AddGraphID(id); }
  void ExchangeID(int32_t oldID, int32_t newID) override;
  void DataChanged(TData* data, TDataChangeInfo info) override;
  void BeforeClearProject() override;

  /// @{ The scene's parts (tests look at them).
  TOpenGLAxis* GetXAxis() const { return FXAxis; }
  TOpenGLAxis* GetYAxis() const { return FYAxis; }
  TOpenGLMarker* GetCursorMarker() const { return FCursorMarker; }
  /// The curve segments of graph index (a gap in the data starts a new segment).
  std::vector<TOpenGLGraph*> GetCurveSegments(int32_t index) const;
  /// @}

protected:
  void ViewMouseDown(int x, int y, TOpenGLMouseButton button, TOpenGLShiftState shift) override;
  void ViewMouseMove(int x, int y, TOpenGLShiftState shift) override;
  void ViewMouseUp(int x, int y, TOpenGLMouseButton button, TOpenGLShiftState shift) override;
  bool ViewMouseWheel(int x, int y, double steps, TOpenGLShiftState shift) override;
  bool ViewKeyDown(TOpenGLKey key, int character, TOpenGLShiftState shift) override;

private:
  struct TGraphScene;

  TDGraph* FindGraph(int32_t index) const;
  TDInterpretation* FindXInterpretation() const;
  bool IsSpectralAxis() const;
  /// Reads the spectrum of graph index at its indices (from the space cursor when it follows it).
  /// Moves every graph one step along its zoom stack (Previous or Next).
  bool StepZoom(bool (TZoomStack::*step)(TZoomArea&));
  void FetchSpectrum(int32_t index);
  /// The column and line under the space cursor for graph index; false when outside.
  bool CursorPixel(int32_t index, int32_t& column, int32_t& line) const;
  void ComputeXValues(int32_t index);
  /// Finds the shared space cursor and the spectral cursor of the x unit; with make, makes those missing.
  void ConnectCursors(bool make);
  void MakeOwnXInterpretation(const TDGraph& graph);
  /// Positions of axes, frame, cursor and curves for the view's present size.
  void LayoutScene();
  void UpdateCurve(int32_t index);
  void UpdateCursorMarker();
  void UpdateCaption();
  void UpdateStatus();
  /// The control interface shows the present state (silently).
  void SyncCFI();
  void Changed();
  void SpaceCursorChanged();
  void XInterpretationChanged();
  void RebuildGraphScenes();
  /// Renumbers the graph IDs that peaks added by hand and mask bands are kept under.
  void RenumberKeys(const std::function<int32_t(int32_t)>& renumber);
  void CreatePeakCFI();
  void PeakCFIChanged(const TUserParameterList& changed);
  /// The panel shows the present settings and peak list (silently).
  void SyncPeakCFI();
  /// Labels of the found peaks and the mask bands, for the present ranges and size.
  void UpdatePeakLabels();
  void UpdateMaskBands();
  /// Searches again after a change of the shown spectra when the options ask for it.
  void SpectraChanged();
  /// The point of graph index nearest to x (x unit); -1 without points.
  int32_t PointOfX(int32_t index, double x) const;
  /// Pixel position of x (x unit) on graph index, between points by linear interpolation; NaN outside.
  double PixelPositionOfX(int32_t index, double x) const;

  std::vector<TGraphDrawInformation> FGraphs;
  std::vector<std::unique_ptr<TGraphScene>> FScenes; ///< parallel to FGraphs
  int32_t FXInterpretationID = 0;
  int32_t FXCursorID = 0;
  int32_t FSpaceCursorID = 0;
  int32_t FXGraphID = 0;
  int32_t FLastXUnitIndex = 0;
  double FMinXInterpretation = 0;
  double FMaxXInterpretation = 1;
  int32_t FAKGraphIndex = 0;
  int32_t FColorCount = 0;
  bool FOnlyOneYAxis = false;
  bool FChangeGraphSimultaneously = true;
  int32_t FScaleKindXAxis = 0;
  bool FShowAxisArrows = false;
  bool FPeakLabels = false;
  bool FHistogramOverlap = false;
  bool FHistogramShowWireFrame = false;
  bool FAutoZoomOutX = false;
  bool FAutoZoomOutY = true;
  bool FAutoZoomOut = true;
  bool FSynchronizedZoom = false;
  bool FCascadeGraphs = false;
  double FCascadeDistance = 0.2;
  TGraphMouseMode FMouseMode = TGraphMouseMode::Cursor;
  std::string FStatusText;
  bool FSyncingCFI = false;
  bool FLoaded = false; ///< ranges came from a file: the first update keeps them

  // Scene.
  TOpenGLObject* FStencilPlane = nullptr;
  TOpenGLMarker* FFrame = nullptr;
  TOpenGLAxis* FXAxis = nullptr;
  TOpenGLAxis* FYAxis = nullptr;
  TOpenGLMarker* FCursorMarker = nullptr;
  TOpenGLMarker* FZoomMarker = nullptr;
  TOpenGLText* FMessageText = nullptr;
  int FLayoutWidth = 0, FLayoutHeight = 0;

  // Peaks.
  TPeakFindControlStruct FPeakControl;
  TGraphPeakLabelOptions FPeakOptions;
  TPeakFindCalculate FPeakFinder;
  std::unique_ptr<TUserParameterAdministrator> FPeakCFI;
  bool FSyncingPeakCFI = false;
  /// Peaks added by hand, by graph ID: they stay through every search.
  std::map<int32_t, TPeakInformationList> FCustomPeaks;
  std::vector<TGraphPeakLabel> FPeakLabelList;
  TOpenGLObject* FPeakHolder = nullptr;
  int32_t FCalculatedXUnitIndex = 0;

  // Masks: band (graph ID, band index) -> one flag per point.
  std::map<std::pair<int32_t, int>, std::vector<bool>> FMultiMasks;
  TOpenGLObject* FMaskHolder = nullptr;
  TGraphMask* FMaskTool = nullptr;
  std::unique_ptr<TGraphMask> FOwnMask;
  bool FMaskKeepsMode = false;
  bool FMaskErase = false;

  // X zoom animation.
  bool FAnimating = false;
  double FAnimationFrom[2] = {0, 1}, FAnimationTo[2] = {0, 1};
  std::chrono::steady_clock::time_point FAnimationStart;

  // Mouse.
  bool FDragging = false;
  int FDragStartX = 0, FDragStartY = 0;
};
