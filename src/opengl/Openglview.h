// The drawing surface of every graphic viewer: TOpenGLView owns a scene (camera, lights, fog, fonts and a
// tree of TOpenGLObject nodes) and draws it into the rendering context its host window supplies through
// IOpenGLContext.
//
// How a viewer uses it:
//   - The viewer owns a TOpenGLView and fills it with objects (AddObject); the workbench's window hosts
//     it (Activate with the window's context) and calls Paint whenever the window must be drawn.
//   - A 2D viewer leaves the projection orthographic without a volume: model units are then the window's
//     pixels, x to the right and y upwards from the bottom-left corner, and the default camera looks down
//     the z axis. An image is a flat TOpenGLMesh; curves are TOpenGLGraph; axes are TOpenGLAxis.
//   - Changes of objects repaint by themselves (auto update) after the repaint delay; RePaint asks for one.
//   - Mouse input arrives through MouseDown/MouseMove/MouseUp/MouseWheel in window pixels (y down); the
//     mouse mode decides whether the camera moves, or OnMouseDown and friends alone see the input.
//     GetObjectsByCoordinates picks the objects under a point; CalculateMouseCoordinates gives the model
//     point under the mouse.
//   - ExportBitmap draws the scene offscreen at a multiple of the window's size, line widths, point sizes
//     and 2D text scaled alike, and returns the picture.
// All calls belong to the main thread.
#pragma once

#include "opengl/Openglbase.h"
#include "opengl/Openglcontext.h"
#include "opengl/Openglfont.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

/// The camera: a position, the view direction by the spherical angles Theta (from +z, degrees) and Phi
/// (about z from +x, degrees), a look distance to the point looked at, and an up vector.
class TOpenGLCamera : public TOpenGLObject {
public:
  TOpenGLCamera();
  std::string GetClassName() const override { return "TOpenGLCamera"; }

  double LookDistance = 1;
  double Theta = 180; ///< looking along -z
  double Phi = 0;
  TOpenGLVector UpVector{0, 1, 0};

  /// The unit vector in which the camera looks.
  TOpenGLVector Direction() const;
  /// The point looked at: position plus direction times look distance.
  TOpenGLVector Target() const;
  /// The viewing transform.
  TOpenGLMatrix ViewMatrix() const;

  /// Moves position (and with it the target) by d.
  void MoveBy(const TOpenGLVector& d);
  /// Moves along the view line towards the target by distance (the target stays; the distance never falls
  /// below a thousandth of what it was).
  void MoveInViewLine(double distance);
  /// Rolls the up vector about the view line.
  void RotateByViewLine(double degrees);
  /// Turns the camera about the up vector through the target (the target stays).
  void RotateByUpVector(double degrees);
  /// Moves the camera over the sphere around the target by the two angles.
  void RotateInSurface(double dTheta, double dPhi);
  /// Sets the angles and distance to look from the present position at target.
  void UpdateCamera(const TOpenGLVector& target);
  /// Sets the position from the target, angles and look distance.
  void UpdateCameraBySphereCoordinates(const TOpenGLVector& target);
};

/// A light of the fixed-function pipeline. W of 0 in the position makes it directional.
class TOpenGLLightSource {
public:
  TOpenGLVector Position{0, 0, 1};
  double W = 0;
  TOpenGLColor Ambient{0, 0, 0, 1};
  TOpenGLColor Diffuse{1, 1, 1, 1};
  TOpenGLColor Specular{1, 1, 1, 1};
  bool Enabled = true;
  /// Drawn as a small red sphere when true.
  bool Visible = false;
};

/// Up to eight lights and the scene's ambient light.
class TOpenGLLightingSystem {
public:
  static constexpr int kMaxLights = 8;
  TOpenGLColor AmbientLight{0.2f, 0.2f, 0.2f, 1};
  /// Adds a light; null when eight are there.
  TOpenGLLightSource* AddLight();
  int GetLightCount() const { return static_cast<int>(FLights.size()); }
  TOpenGLLightSource& GetLight(int index) { return *FLights[static_cast<size_t>(index)]; }
  void Clear() { FLights.clear(); }
  /// Sets the lights in the context (after the camera's transform).
  void Apply() const;

private:
  std::vector<std::unique_ptr<TOpenGLLightSource>> FLights;
};

enum class TOpenGLFogMode { Linear, Exponential, Exponential2 };

/// Fog, applied when the view's fog feature is on.
struct TOpenGLFog {
  TOpenGLFogMode Mode = TOpenGLFogMode::Linear;
  TOpenGLColor Color{0.5f, 0.5f, 0.5f, 1};
  double Density = 1;
  double Start = 0;
  double End = 1;
  void Apply() const;
};

/// Orthographic (parallel) or perspective projection.
enum class TOpenGLProjectionType { Orthographic, Perspective };

/// The six planes of a viewing frustum, for telling whether a box can be seen.
class TClippingFrustum {
public:
  /// The planes of projection × view.
  void Calculate(const TOpenGLMatrix& projectionTimesView);
  /// False only when the box lies wholly outside one plane.
  bool IsBoxVisible(const TOpenGLBox& box) const;

private:
  double FPlanes[6][4] = {};
};

/// A box that clips the whole scene (six user clip planes) while it is on.
struct TClippingVolume {
  bool Enabled = false;
  TOpenGLBox Box;
  void Apply() const;
  void Remove() const;
};

/// Features of the view, combined as flags.
enum TOpenGLFeature : uint32_t {
  ofDepthTest = 1,
  ofLighting = 2,
  ofFog = 4,
  ofStencil = 8,
  ofBlending = 16,
  ofTextures = 32,
  ofBackFaceCulling = 64,
};

enum class TOpenGLMouseMode { None, Rotate, Move, Zoom, Select };
enum class TOpenGLMouseButton { Left, Middle, Right };
/// The keys a view passes on to its owner; letters and digits come as Character with their code.
enum class TOpenGLKey {
  Left,
  Right,
  Up,
  Down,
  PageUp,
  PageDown,
  Home,
  End,
  F5,
  F6,
  Delete,
  Escape,
  Return,
  Character
};

/// The shift keys held with a mouse event.
struct TOpenGLShiftState {
  bool Shift = false;
  bool Ctrl = false;
  bool Alt = false;
};

/// A picture read back from the context: rows top-down, RGB, no padding.
struct TOpenGLBitmap {
  int Width = 0;
  int Height = 0;
  std::vector<uint8_t> Pixels;
};

/// One object under the pick point with the depth range of its hit (0 near … 1 far).
struct TOpenGLHit {
  TOpenGLObject* Object = nullptr;
  double MinDepth = 0;
  double MaxDepth = 0;
};

/// The family of the view's default fonts (the host's rasteriser maps it to a font file).
inline constexpr const char* kDefaultOpenGLFontFamily = "DejaVu Sans";

/// The scene of a viewer and its drawing. Default fonts: kDefaultOpenGLFontFamily at 12 pixels (2D) and
/// 10 model units (3D).
class TOpenGLView {
public:
  TOpenGLView();
  ~TOpenGLView();
  TOpenGLView(const TOpenGLView&) = delete;
  TOpenGLView& operator=(const TOpenGLView&) = delete;

  /// @{ Context. A view draws only while active (it has a context).
  /// Connects the view to its host's context (not owned) and prepares the GL state (context current).
  void InitOpenGL(IOpenGLContext* context);
  /// Deletes every GL name of the scene (context current) and forgets the context.
  void ReleaseOpenGL();
  /// Marks the view active: changes repaint from now on.
  void Activate();
  void Deactivate();
  bool IsActive() const { return FActive && FContext; }
  IOpenGLContext* GetContext() const { return FContext; }
  /// Size of the window in pixels (the host sets it on resize; the pixel volume follows it).
  void SetViewportSize(int width, int height);
  /// Called after the window's size changed (viewers that keep an aspect ratio lay their scene out again).
  std::function<void(TOpenGLView*)> OnViewportSizeChanged;
  int GetWidth() const { return FWidth; }
  int GetHeight() const { return FHeight; }
  /// @}

  /// @{ Scene. The view owns its objects; AddObject returns the object for further set-up.
  TOpenGLObject* AddObject(std::unique_ptr<TOpenGLObject> object);
  template <class T>
  T* Add(std::unique_ptr<T> object) {
    return static_cast<T*>(AddObject(std::move(object)));
  }
  std::unique_ptr<TOpenGLObject> RemoveObject(TOpenGLObject* object);
  /// Adds an object that draws only into the stencil buffer: objects with UseStencil draw only where a
  /// stencil object has drawn (while the stencil feature is on).
  TOpenGLObject* AddStencilObject(std::unique_ptr<TOpenGLObject> object);
  void ClearObjects();
  int GetObjectCount() const { return static_cast<int>(FObjects.size()); }
  TOpenGLObject* GetObject(int index) const { return FObjects[static_cast<size_t>(index)].get(); }
  TOpenGLObject* FindByIDNumber(uint32_t id) const;
  TOpenGLCamera& Camera() { return FCamera; }
  TOpenGLLightingSystem& Lighting() { return FLighting; }
  TClippingVolume& ClippingVolume() { return FClippingVolume; }
  /// @}

  /// @{ Drawing.
  /// Draws a frame (context current): viewport, clearing, projection, then RenderScene.
  void Paint();
  /// The camera's transform, fog, lights, the opaque pass, the transparent pass, the after-render event
  /// and visible lights, in this order (context current, projection set).
  void RenderScene();
  /// Asks for a repaint after the repaint delay (nothing while inactive).
  void RePaint();
  /// An object of the scene changed: its display list is rebuilt and, with auto update, the view repaints.
  void ObjectChanged(TOpenGLObject* object);
  /// Called after each RenderScene (not in design state).
  std::function<void(TOpenGLView*)> OnAfterRender;
  void SetDesignState(bool value) { FDesignState = value; }
  /// @}

  /// @{ Settings.
  void SetClearColor(const TOpenGLColor& color);
  const TOpenGLColor& GetClearColor() const { return FClearColor; }
  void SetFeatures(uint32_t features);
  uint32_t GetFeatures() const { return FFeatures; }
  bool HasFeature(TOpenGLFeature feature) const { return (FFeatures & feature) != 0; }
  void SetFog(const TOpenGLFog& fog);
  void SetLighting(bool on);
  /// The fonts of 2D (screen) and 3D (model) text; the view gives them the host's rasteriser.
  void SetFont2D(std::unique_ptr<TOpenGLFont> font);
  void SetFont3D(std::unique_ptr<TOpenGLFont> font);
  TOpenGLFont* GetFont2D() const { return FFont2D.get(); }
  TOpenGLFont* GetFont3D() const { return FFont3D.get(); }
  /// Gives the fonts a rasteriser without a context (tests of text layout).
  void SetGlyphRasterizer(IGlyphRasterizer* rasterizer);
  void SetMouseMode(TOpenGLMouseMode mode) { FMouseMode = mode; }
  TOpenGLMouseMode GetMouseMode() const { return FMouseMode; }
  /// Milliseconds between a change and its repaint (0: the next event loop turn).
  void SetRepaintDelay(int ms) { FRepaintDelay = ms < 0 ? 0 : ms; }
  int GetRepaintDelay() const { return FRepaintDelay; }
  void SetContinuousUpdate(bool on);
  bool GetContinuousUpdate() const { return FContinuousUpdate; }
  /// With auto update on (default) every object change repaints.
  void SetAutoUpdate(bool on) { FAutoUpdate = on; }
  bool GetAutoUpdate() const { return FAutoUpdate; }
  /// Size in pixels of the square around the pick point; only 1 or more is taken.
  void SetPickAreaSize(int size);
  int GetPickAreaSize() const { return FPickAreaSize; }
  /// @}

  /// @{ Projection.
  void SetProjectionType(TOpenGLProjectionType type);
  TOpenGLProjectionType GetProjectionType() const { return FProjectionType; }
  /// The orthographic volume in model units; an empty one (the default) means the window's pixels.
  void SetOrthographicVolume(double left, double right, double bottom, double top);
  void SetFieldOfView(double degrees) { FFieldOfView = degrees; }
  void SetDepthRange(double zNear, double zFar);
  /// The projection of the window's size (or of the export's, which keeps the window's volume).
  TOpenGLMatrix ProjectionMatrix() const;
  /// The camera's transform.
  TOpenGLMatrix ViewMatrix() const { return FCamera.ViewMatrix(); }
  /// The scale of line widths, point sizes and 2D text (1 on screen, the factor of an export).
  double GetReferenceScale() const { return FReferenceScale; }
  /// @}

  /// @{ Coordinates. Window coordinates: pixels from the top-left corner, y down. OpenGL window
  /// coordinates: from the bottom-left corner, y up.
  void GetOglCoordinatesFromWindowsCoordinates(double x, double y, double& oglX, double& oglY) const;
  /// The model point at OpenGL window coordinates (x, y) and depth z (0 near … 1 far); false when the
  /// transform can't be inverted.
  bool UnProjectPoint(double oglX, double oglY, double depth, TOpenGLVector& model) const;
  /// OpenGL window coordinates and depth of a model point.
  TOpenGLVector ProjectPoint(const TOpenGLVector& model) const;
  /// Where the line of sight through window point (x, y) meets the plane z = planeZ; false when parallel.
  bool ProjectPlane(double x, double y, double planeZ, TOpenGLVector& model) const;
  /// The model point under the mouse on the plane z = 0.
  bool CalculateMouseCoordinates(int x, int y, TOpenGLVector& model) const;
  /// @}

  /// @{ Bounds and camera.
  /// The box of all visible objects.
  TOpenGLBox FindBoundingBox() const;
  /// Aims the camera at the scene's box so that it fills the window: orthographic views set their volume
  /// to the box, perspective views move the camera back along its line of sight.
  void FitCamera();
  /// @}

  /// @{ Picking (context current or not: the view makes it current).
  /// Selectable objects whose drawing covers the pick area around window point (x, y), nearest first.
  std::vector<TOpenGLHit> GetObjectsByCoordinates(int x, int y);
  /// Selects the nearest object under the point alone (others lose the selection); null when none.
  TOpenGLObject* SelectSingleObject(int x, int y);
  /// Selects every selectable object drawn inside the window rectangle; returns them.
  std::vector<TOpenGLObject*> SelectMultipleObjects(int left, int top, int right, int bottom);
  /// @}

  /// @{ Mouse input (window pixels). The mouse mode moves the camera; the events are passed on first.
  void MouseDown(int x, int y, TOpenGLMouseButton button, TOpenGLShiftState shift);
  void MouseMove(int x, int y, TOpenGLShiftState shift);
  void MouseUp(int x, int y, TOpenGLMouseButton button, TOpenGLShiftState shift);
  /// Wheel steps (positive away from the user): zoom about the point.
  void MouseWheel(int x, int y, double steps, TOpenGLShiftState shift);
  std::function<void(int, int, TOpenGLMouseButton, TOpenGLShiftState)> OnMouseDown;
  std::function<void(int, int, TOpenGLShiftState)> OnMouseMove;
  std::function<void(int, int, TOpenGLMouseButton, TOpenGLShiftState)> OnMouseUp;
  /// A click in select mode: the objects hit (nearest first).
  std::function<void(const std::vector<TOpenGLHit>&)> OnSelect;
  /// Asked first about a wheel turn: true when the owner handled it (the camera then stays).
  std::function<bool(int, int, double, TOpenGLShiftState)> OnMouseWheel;
  /// A key pressed while the view has the focus; character is the key's code for TOpenGLKey::Character.
  /// Returns whether the key was used.
  bool KeyDown(TOpenGLKey key, int character, TOpenGLShiftState shift);
  std::function<bool(TOpenGLKey, int, TOpenGLShiftState)> OnKeyDown;
  /// @}

  /// Draws the scene offscreen at scale times the window's size (line widths, point sizes and 2D text
  /// scaled alike) and reads it back; false when there is no context or no offscreen target.
  bool ExportBitmap(double scale, TOpenGLBitmap& bitmap);

  /// Where given-up GL names wait for deletion.
  const std::shared_ptr<TOpenGLResourceBin>& ResourceBin() const { return FBin; }
  /// Deletes the names in the bin (context current).
  void EmptyResourceBin();

  /// Takes an object (and its subtree) into the scene: the view is set, picking names are given.
  void PrepareObject(TOpenGLObject* object);

private:
  void ApplyFeatures() const;
  void RenderStencil();
  void RenderVisibleLights() const;

  IOpenGLContext* FContext = nullptr;
  bool FActive = false;
  bool FInitialised = false;
  bool FDesignState = false;
  int FWidth = 1;
  int FHeight = 1;
  int FViewportWidth = 1; ///< size drawn into: the window's, or an export's
  int FViewportHeight = 1;
  std::vector<std::unique_ptr<TOpenGLObject>> FObjects;
  std::vector<std::unique_ptr<TOpenGLObject>> FStencilObjects;
  TOpenGLCamera FCamera;
  TOpenGLLightingSystem FLighting;
  TOpenGLFog FFog;
  TClippingVolume FClippingVolume;
  std::unique_ptr<TOpenGLFont> FFont2D;
  std::unique_ptr<TOpenGLFont> FFont3D;
  IGlyphRasterizer* FRasterizer = nullptr;
  TOpenGLColor FClearColor{1, 1, 1, 1};
  uint32_t FFeatures = ofDepthTest | ofBlending | ofTextures;
  TOpenGLMouseMode FMouseMode = TOpenGLMouseMode::None;
  int FRepaintDelay = 0;
  bool FContinuousUpdate = false;
  bool FAutoUpdate = true;
  int FPickAreaSize = 3;
  TOpenGLProjectionType FProjectionType = TOpenGLProjectionType::Orthographic;
  double FOrthoLeft = 0, FOrthoRight = 0, FOrthoBottom = 0, FOrthoTop = 0;
  double FFieldOfView = 45;
  double FNear = -1000;
  double FFar = 1000;
  double FReferenceScale = 1;
  uint32_t FNextID = 1;
  std::shared_ptr<TOpenGLResourceBin> FBin = std::make_shared<TOpenGLResourceBin>();
  // Mouse drag state.
  bool FDragging = false;
  int FDragX = 0;
  int FDragY = 0;
};

/// What a viewer that draws through a TOpenGLView offers its window: the workbench hosts the view in a
/// rendering widget when the viewer has this interface.
class IOpenGLViewOwner {
public:
  virtual ~IOpenGLViewOwner() = default;
  virtual TOpenGLView& GetOpenGLView() = 0;
};
