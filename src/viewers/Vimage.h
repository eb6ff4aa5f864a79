// The image viewer: images and bitmaps as a coloured picture (or, in 3D, a coloured height mesh) in a scene
// view. One image gives the colour through the viewer's colour profile and scale, optionally a second one the
// height and a third one the brightness. World x runs to the right and world y downwards at the world's
// aspect ratio, so that line 0 is on top and column 0 on the left, like a picture. A flat image is a single
// texture. Over it lie the draw field (a mask the user paints), the shared space cursor as a cross, the
// colour scale bar, the coordinate axes (ticks labelled in the space unit), the marker the user stretches
// (box, line or circle) and the outlines of further transformations (the areas other objects cover).
#pragma once

#include "data/Dcolorprofile.h"
#include "viewers/Vgraphic.h"
#include "viewers/Vimagedrawfield.h"
#include "viewers/Vimagescale.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

class TDImage;
class TDBitmap;
class TOpenGLMesh;
class TOpenGLMarker;
class TOpenGLText;
class TOpenGLObject;

/// What the mouse does in the view.
enum class TImageMouseMode : int32_t {
  Cursor = 0,
  Zoom = 1,
  DrawPen = 2,
  DrawErase = 3,
  BoxMarker = 4,
  LineMarker = 5,
  CircleMarker = 6
};
inline constexpr int32_t kImageMouseModeCount = 7;

/// The marker the user stretches over the picture.
enum class TImageMarkerKind : int32_t { None = 0, Box, Line, Circle };

/// Flat picture or height mesh.
enum class TImageDisplayMode : int32_t { Display2D = 0, Display3D = 1 };

/// Where the automatic colour scale reads its percentiles (the program's options).
struct TImageViewerOptions {
  double LowerPercent = 0.5;
  double UpperPercent = 99.5;
};

class TVImageForm : public TVCustomGraphicForm {
public:
  static constexpr const char* kClassName = "TVImageForm";
  static constexpr const char* kCaption = "Image Viewer";
  static constexpr const char* kZoomSuffix = " (Zoom)";
  static constexpr int32_t ThisVersion = 1;
  /// The most objects one viewer shows.
  static constexpr int32_t kMaximumIDs = 19;
  /// Ids of the control interface's parameters.
  enum TParameterId : int32_t {
    kColorTable = 1,
    kScaleMinimum,
    kScaleMaximum,
    kScaleKind,
    kAutomaticColorScale,
    kLineCorrection,
    kDisplayMode,
    kShowScaleBar,
    kShowCoordinateSystem,
    kInterpolatePixelColors,
    kCursorX,
    kCursorY,
    kZoomStartX,
    kZoomStartY,
    kZoomStopX,
    kZoomStopY,
  };

  TVImageForm();
  ~TVImageForm() override;
  static void RegisterViewer();
  /// From 1 to 19 ids, each an image or a bitmap.
  static bool IsInputIDListOkayForShowViewer(TProject& project, const TIntList& ids);
  /// The options every image viewer reads its automatic scale from.
  static TImageViewerOptions& Options();

  std::string GetClassNameA() const override { return kClassName; }

  // --- Objects shown -------------------------------------------------------------------------------

  /// Shows id as the colour image (an image) or the picture (a bitmap); with keepScale false the colour
  /// scale is made anew. False when id is neither.
  bool SetImageID(int32_t id, bool keepScale = false);
  void SetColorImage(int32_t id);
  /// The height image of the 3D display (0: the colour image gives the height).
  void SetZImage(int32_t id);
  /// The image whose values darken the colours (0: none).
  void SetBrightnessImage(int32_t id);
  int32_t GetImageColorID() const { return FImageColorID; }
  int32_t GetImageZID() const { return FImageZID; }
  int32_t GetImageBrightnessID() const { return FImageBrightnessID; }
  int32_t GetBitmapID() const { return FBitmapID; }
  int32_t GetColorProfileID() const { return FColorProfileID; }
  int32_t GetSpaceCursorID() const { return FSpaceCursorID; }
  /// The pixel size of what is shown (the colour image, else the bitmap); 0, 0 without one.
  void GetShownSize(int32_t& sizeX, int32_t& sizeY) const;

  // --- Colour scale --------------------------------------------------------------------------------

  /// Sets the colour range; equal limits are kept apart (0.1). With fromUser the automatic scale on image
  /// change is switched off.
  void SetColorScale(double minimum, double maximum, bool fromUser = true);
  void SetZScale(double minimum, double maximum, bool fromUser = true);
  void SetBrightnessScale(double minimum, double maximum, bool fromUser = true);
  double GetScaleMinimum() const { return FScaleMinimum; }
  double GetScaleMaximum() const { return FScaleMaximum; }
  double GetZScaleMinimum() const { return FZScaleMinimum; }
  double GetZScaleMaximum() const { return FZScaleMaximum; }
  void SetScaleKind(TImageScaleKind kind);
  TImageScaleKind GetScaleKind() const { return FScaleKind; }
  /// The colour scale from the options' percentiles of the corrected colour image (or, with fromLastLine,
  /// from the line written last), the height and brightness scales from their extremes. Does nothing while
  /// the project loads or without a colour image.
  void AutomaticColorScale(bool fromLastLine = false);
  /// Locks the scale against automatic changes while a tool sets it by hand.
  void SetScaleLocked(bool locked) { FScaleLocked = locked; }
  void SetLineCorrection(TLineCorrection correction);
  TLineCorrection GetLineCorrection() const { return FLineCorrection; }
  void SetLineCorrection3D(TLineCorrection correction);
  /// @{ Steps through the line corrections (wrapping).
  void SetNextLineCorrection();
  void SetPreviousLineCorrection();
  /// @}
  /// The colour image's value at (x, y) after the line correction; NaN outside or without an image.
  double GetLineCorrectedZValue(int32_t x, int32_t y);
  /// @{ Sorted values of the (corrected) colour, height and brightness images, cached until they change.
  const TImageExtrema& GetImageColorExtrema();
  const TImageExtrema& GetImageZExtrema();
  const TImageExtrema& GetImageBrightnessExtrema();
  /// @}
  /// The colour the viewer gives a value of the colour image.
  TColor GetColorOfValue(double value);
  /// The colour of pixel (x, y) of the picture on view (brightness included): what the texture holds.
  TColor GetPixelColor(int32_t x, int32_t y) const;

  // --- Display -------------------------------------------------------------------------------------

  void SetDisplayMode(TImageDisplayMode mode);
  TImageDisplayMode GetDisplayMode() const { return FDisplayMode; }
  void SetShowScaleBar(bool show);
  void SetShowCoordinateSystem(bool show);
  void SetInterpolatePixelColors(bool interpolate);
  bool GetShowScaleBar() const { return FShowScaleBar; }
  bool GetShowCoordinateSystem() const { return FShowCoordinateSystem; }
  bool GetInterpolatePixelColors() const { return FInterpolatePixelColors; }
  /// The first and last pixels shown (inclusive); false (nothing changed) for an empty, inverted or outside
  /// window.
  bool SetZoomWindow(int32_t startX, int32_t startY, int32_t stopX, int32_t stopY);
  void GetZoomWindow(int32_t& startX, int32_t& startY, int32_t& stopX, int32_t& stopY) const;
  /// Shows the whole picture.
  void ResetZoom();
  /// The four world corners of a zoom window (first pixel's outer corner, then along x, opposite, along y).
  struct T4Points {
    double X[4] = {};
    double Y[4] = {};
  };
  /// @{ Synchronised zoom: each zoom of a viewer with it active goes, as world corners, to every other
  /// image viewer of the project with it active, which zooms onto the pixels of its own picture inside
  /// them (no echo back).
  void ChangeSynchronizedZoomActive(bool active) { FSynchronizedZoom = active; }
  bool GetSynchronizedZoomActive() const { return FSynchronizedZoom; }
  void SendZoomForSynchronize();
  /// False (and nothing changed) when no pixel of the picture lies inside the corners.
  bool SynchronizeZoom(const T4Points& points, int32_t index);
  /// @}
  /// Rebuilds the whole scene from the data.
  void SetAll();
  /// Recolours the texture (after a change of scale, profile or data).
  void SetMesh();
  /// The world box of the zoom window and the model (view) point of a world point: model x = world x,
  /// model y = -world y.
  static TOpenGLVector WorldToModel(double worldX, double worldY) { return {worldX, -worldY, 0}; }
  /// @{ The camera of the 3D display, angles in degrees.
  void SetCameraByAngle(double phi, double theta);
  double GetCameraPhi() const { return FCameraPhi; }
  double GetCameraTheta() const { return FCameraTheta; }
  /// @}

  // --- Cursor and mouse ----------------------------------------------------------------------------

  /// The pixel under the shared space cursor; false (and -1, -1) when it lies outside the picture.
  bool GetCursorPixel(int32_t& x, int32_t& y) const;
  /// Moves the shared space cursor to the world position of pixel (x, y); false outside the picture.
  bool SetCursorPixel(int32_t x, int32_t y);
  /// The pixel under window point (x, y) of the view; false outside the picture.
  bool WindowToPixel(int x, int y, int32_t& pixelX, int32_t& pixelY) const;
  void SetImageMouseMode(TImageMouseMode mode) { FMouseMode = mode; }
  TImageMouseMode GetImageMouseMode() const { return FMouseMode; }
  void SetNextImageMouseMode();
  void SetPreviousImageMouseMode();
  /// Width in pixels of the draw field's pen.
  void SetPenWidth(int32_t width) { FPenWidth = width < 1 ? 1 : width; }
  /// The cross of the cursor in the scene (null when none is drawn).
  const TOpenGLMarker* GetCursorMarker() const { return FCursorMarker; }
  /// The mesh of the picture (null without one).
  TOpenGLMesh* GetImageMesh() const { return FMesh; }
  /// The label texts of the x axis (along the bottom) or the y axis (on the left), empty when the
  /// coordinate system is hidden.
  std::vector<const TOpenGLText*> GetAxisLabels(bool yAxis) const;

  // --- Markers -------------------------------------------------------------------------------------

  /// @{ The marker starts at pixel (SetMarkerStart) and reaches pixel (x, y): a box over both pixels, a
  /// line between their centres, or a circle about the start's centre through (x, y)'s centre. False (and
  /// nothing changed) outside the picture.
  bool SetMarkerStart(int32_t x, int32_t y);
  bool SetBoxMarker(int32_t x, int32_t y);
  bool SetLineMarker(int32_t x, int32_t y);
  bool SetCircleMarker(int32_t x, int32_t y);
  /// @}
  /// A point on the line marker, index pixel steps from its start (clamped to its end); -1 hides it.
  void SetCurrentPositionMarker(int32_t index);
  void HideMarker();
  TImageMarkerKind GetMarkerKind() const { return FMarkerKind; }
  void GetMarkerPixels(int32_t& x0, int32_t& y0, int32_t& x1, int32_t& y1) const;
  /// The marker's size in world units: the box's width and height, the line's length (twice) or the
  /// circle's radius (twice); 0 without a marker.
  void GetMarkerWorldSize(double& width, double& height) const;
  /// The model points the marker is drawn through (empty when hidden).
  std::vector<TOpenGLVector> GetMarkerOutline() const;
  /// @{ Further transformations drawn as outlines: a space transformation as the area of the object that
  /// uses it (the corners of its pixel field), or a cross at its origin when no object uses it. Only space
  /// transformations are taken; an id twice is kept once.
  bool AddTransformationID(int32_t id);
  void DeleteTransformationID(int32_t id);
  const TIntList& GetTransformationIDs() const { return FTransformationIDs; }
  /// Lays every outline anew (after a change of a transformation or of the view).
  void SetTransformations();
  /// The model points of the outline of a listed transformation (empty when not listed).
  std::vector<TOpenGLVector> GetTransformationOutline(int32_t id) const;
  /// @}

  // --- Draw field ----------------------------------------------------------------------------------

  /// The draw field; MakeDrawFieldImage makes it for the picture's size (kept when it exists).
  TImageDrawField& DrawField() { return FDrawField; }
  const TImageDrawField& DrawField() const { return FDrawField; }
  void MakeDrawFieldImage();
  /// Drops the draw field.
  void DeleteDrawField();
  /// Shows the draw field's changes and tells OnDrawFieldChange.
  void DrawFieldChanged();
  /// Called after each change of the draw field (a tool that takes the field as its mask listens here).
  std::function<void()> OnDrawFieldChange;

  // --- Viewer --------------------------------------------------------------------------------------

  void CFICreateParameters(TUserParameterAdministrator& cfi) override;
  bool CFIParameterIsNewValueAllowed(const TUserParameterList& changed) override;
  void CFIParameterChanged(const TUserParameterList& changed) override;
  /// The base group, then "TVImageForm" with the viewer's fields in their fixed order, then "ScaleKind",
  /// "InterpolatePixelColors", "TransformationCount" and (when there are any) "TransformationIDs".
  TTagError SaveViewerToTagFile(TFileHandle file) override;
  TTagError LoadViewerFromTagFile(TFileHandle file, const TTagControl& parent) override;
  void DoDataUpdate() override;
  bool IsDataUsed(int32_t id) const override;
  void AddToID(int32_t delta) override;
  /// An image becomes the colour image, then the height image, then the brightness image; a bitmap the
  /// picture; a space transformation (dropped on the view) an outline.
  bool AddDataID(int32_t id) override;
  void ExchangeID(int32_t oldID, int32_t newID) override;
  void DataChanged(TData* data, TDataChangeInfo info) override;
  void BeforeClearProject() override;
  /// Message 0 runs the automatic colour scale.
  void RecieveViewerMessage(int32_t message) override;
  /// The zoom window as a new image (raw values, transformation moved to the window's first pixel) or, for
  /// a bitmap, a new bitmap.
  TIntList ExtractViewerObjects(std::string& reason) override;

protected:
  void ViewMouseDown(int x, int y, TOpenGLMouseButton button, TOpenGLShiftState shift) override;
  void ViewMouseMove(int x, int y, TOpenGLShiftState shift) override;
  void ViewMouseUp(int x, int y, TOpenGLMouseButton button, TOpenGLShiftState shift) override;
  bool ViewKeyDown(TOpenGLKey key, int character, TOpenGLShiftState shift) override;

private:
  TDImage* FindImage(int32_t id) const;
  TDBitmap* FindBitmap() const;
  /// The viewer's profile; made ("Default Color Profile", saved while used) when it has none.
  TDColorProfile* GetOrMakeColorProfile();
  int32_t ShownTransformationID() const;
  void ConnectCursor();
  void BuildScene();
  void LayoutView();
  void UpdateCursorMarker();
  void UpdateDrawFieldTexture();
  void UpdateScaleBar();
  void RecolorTexture();
  void UpdateZMesh();
  /// Puts the members into the control interface without notifications, with the limits of the picture.
  void SyncCFI();
  void InvalidateExtrema();
  void Changed();
  void UpdateCaption();
  void PaintDrawField(int32_t x, int32_t y);
  /// Where a rectangle of pixel coordinates lies in the model: its corners (first, along x, opposite,
  /// along y), and the turn and sides of the rectangle that puts the picture there.
  struct TPictureFrame {
    std::vector<TOpenGLVector> Corners;
    TOpenGLVector Origin;
    double AngleDegrees = 0;
    double Width = 0;
    double Height = 0; ///< signed: negative when pixel y runs downwards on screen
  };
  bool PictureFrame(double x0, double y0, double x1, double y1, TPictureFrame& frame) const;
  bool SetMarker(TImageMarkerKind kind, int32_t x, int32_t y);
  void UpdateImageMarkers();
  std::vector<TOpenGLVector> OutlineOfTransformation(int32_t id) const;

  int32_t FImageColorID = 0;
  int32_t FImageZID = 0;
  int32_t FImageBrightnessID = 0;
  int32_t FImageID = 0;
  int32_t FBitmapID = 0;
  int32_t FImage2ID = 0;
  int32_t FColorProfileID = 0;
  int32_t FSpaceInterpretationID = 0;
  int32_t FSpaceCursorID = 0;
  TImageDisplayMode FDisplayMode = TImageDisplayMode::Display2D;
  bool FUseZImage = false;
  bool FUseBrightnessImage = false;
  double FScaleMinimum = 0, FScaleMaximum = 1;
  double FZScaleMinimum = 0, FZScaleMaximum = 1;
  double FBrightnessScaleMinimum = 0, FBrightnessScaleMaximum = 1;
  double FLastTotalAverage = 0, FLastTotalAverageZ = 0;
  int32_t FStartX = 0, FStartY = 0, FStopX = -1, FStopY = -1;
  TLineCorrection FLineCorrection = TLineCorrection::None;
  TLineCorrection FLineCorrection3D = TLineCorrection::None;
  bool FShowCoordinateSystem = false;
  bool FShowZAxis = true;
  bool FShowScaleBar = true;
  int32_t FScaleBarColor = 0x000000;
  double FCameraPhi = -60;
  double FCameraTheta = 50;
  int32_t FCameraProjection = 1; ///< 0 orthographic, 1 perspective
  bool FFreeAspectRatio = false;
  bool FFreeCameraDistanceActive = false;
  double FFreeCameraDistance = 0;
  bool FAutomaticColorScaleOnImageChange = true;
  bool FNiceMeshBorders = false;
  double FOGLLabelZPosition = 0;
  TImageDrawField FDrawField;
  std::vector<uint8_t> FLoadedDrawField; ///< read from a file before the picture's size is known
  TImageScaleKind FScaleKind = TImageScaleKind::Linear;
  bool FInterpolatePixelColors = false;

  bool FScaleLocked = false;
  /// Draws while a project loads and the viewer's profile is missing (nothing is added during a load).
  std::unique_ptr<TDColorProfile> FFallbackProfile;
  TImageExtrema FColorExtrema, FZExtrema, FBrightnessExtrema;
  TImageMouseMode FMouseMode = TImageMouseMode::Cursor;
  int32_t FPenWidth = 1;
  bool FDragging = false;
  int32_t FZoomAnchorX = 0, FZoomAnchorY = 0;
  bool FSyncingCFI = false;
  bool FSynchronizedZoom = false;
  bool FReceivingZoom = false;

  TOpenGLMesh* FMesh = nullptr;
  TOpenGLMesh* FDrawFieldMesh = nullptr;
  TOpenGLMarker* FCursorMarker = nullptr;
  TOpenGLMarker* FZoomMarker = nullptr;
  TOpenGLMesh* FScaleBar = nullptr;
  TOpenGLText* FScaleBarTop = nullptr;
  TOpenGLText* FScaleBarBottom = nullptr;
  TOpenGLObject* FAxisX = nullptr;
  TOpenGLObject* FAxisY = nullptr;
  TOpenGLMarker* FImageMarker = nullptr;
  TOpenGLMarker* FPositionMarker = nullptr;
  std::vector<TOpenGLMarker*> FTransformationMarkers;
  double FUnitsPerPixel = 1;

  TImageMarkerKind FMarkerKind = TImageMarkerKind::None;
  int32_t FMarkerX0 = 0, FMarkerY0 = 0, FMarkerX1 = 0, FMarkerY1 = 0;
  int32_t FPositionIndex = -1;
  TIntList FTransformationIDs;
  /// Texture colours of the picture, line y at row y (0x00BBGGRR).
  std::vector<TColor> FPixelColors;
  int32_t FShownSizeX = 0, FShownSizeY = 0;
};
