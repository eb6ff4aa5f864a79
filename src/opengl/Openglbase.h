// The scene's building blocks: vectors, colours, 4×4 matrices, textures and the scene object every drawn
// thing derives from. Objects form a tree below a TOpenGLView; each setter reports the change to the view,
// which rebuilds display lists and repaints. Nothing here needs a rendering context until Render runs.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

class TOpenGLView;

/// A point or direction in model space.
struct TOpenGLVector {
  double X = 0;
  double Y = 0;
  double Z = 0;

  TOpenGLVector operator+(const TOpenGLVector& o) const { return {X + o.X, Y + o.Y, Z + o.Z}; }
  TOpenGLVector operator-(const TOpenGLVector& o) const { return {X - o.X, Y - o.Y, Z - o.Z}; }
  TOpenGLVector operator*(double f) const { return {X * f, Y * f, Z * f}; }
  bool operator==(const TOpenGLVector&) const = default;
  double Dot(const TOpenGLVector& o) const { return X * o.X + Y * o.Y + Z * o.Z; }
  TOpenGLVector Cross(const TOpenGLVector& o) const {
    return {Y * o.Z - Z * o.Y, Z * o.X - X * o.Z, X * o.Y - Y * o.X};
  }
  double Length() const;
  /// The vector of length 1 in the same direction (itself when of length 0).
  TOpenGLVector Normalized() const;
};

/// An RGBA colour, each part 0 to 1. Alpha below 1 puts an object in the transparent pass.
struct TOpenGLColor {
  float R = 0;
  float G = 0;
  float B = 0;
  float A = 1;

  bool operator==(const TOpenGLColor&) const = default;
  bool IsOpaque() const { return A >= 1.0f; }
  static TOpenGLColor FromRGB(uint8_t r, uint8_t g, uint8_t b, float alpha = 1.0f) {
    return {r / 255.0f, g / 255.0f, b / 255.0f, alpha};
  }
};

/// A column-major 4×4 matrix, as OpenGL loads it.
struct TOpenGLMatrix {
  std::array<double, 16> M{1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1};

  double& At(int row, int column) { return M[static_cast<size_t>(column * 4 + row)]; }
  double At(int row, int column) const { return M[static_cast<size_t>(column * 4 + row)]; }
  TOpenGLMatrix operator*(const TOpenGLMatrix& o) const;
  /// The point transformed with w = 1 and divided by the resulting w.
  TOpenGLVector TransformPoint(const TOpenGLVector& p) const;
  /// The inverse; false (and identity) when the matrix is singular.
  bool Inverse(TOpenGLMatrix& result) const;

  static TOpenGLMatrix Translation(const TOpenGLVector& t);
  static TOpenGLMatrix Scaling(const TOpenGLVector& s);
  /// Rotation by degrees about an axis through the origin.
  static TOpenGLMatrix Rotation(double degrees, const TOpenGLVector& axis);
  /// The viewing transform of an eye at eye looking at target with up as the up direction.
  static TOpenGLMatrix LookAt(const TOpenGLVector& eye, const TOpenGLVector& target, const TOpenGLVector& up);
  static TOpenGLMatrix Ortho(double left, double right, double bottom, double top, double zNear, double zFar);
  /// Perspective projection with the vertical field of view in degrees.
  static TOpenGLMatrix Perspective(double fovY, double aspect, double zNear, double zFar);
};

/// A box in model space; empty until a point is added.
struct TOpenGLBox {
  TOpenGLVector Min{1, 1, 1};
  TOpenGLVector Max{-1, -1, -1};

  bool IsEmpty() const { return Min.X > Max.X || Min.Y > Max.Y || Min.Z > Max.Z; }
  void Add(const TOpenGLVector& p);
  void AddBox(const TOpenGLBox& box);
  TOpenGLVector Center() const { return (Min + Max) * 0.5; }
};

/// Names of a context's textures and display lists that were given up while the context wasn't current;
/// the view deletes them at its next render. Holders keep it weakly: when the view goes, so do its names.
struct TOpenGLResourceBin {
  std::vector<uint32_t> Textures;
  std::vector<uint32_t> Lists;
};

/// Filter of a texture when it is magnified or shrunk.
enum class TOpenGLTextureFilter { Nearest, Linear };

/// An RGBA texture: the picture is kept in memory and uploaded when it is first bound after a change.
class TOpenGLTexture {
public:
  TOpenGLTexture() = default;
  ~TOpenGLTexture();
  TOpenGLTexture(const TOpenGLTexture&) = delete;
  TOpenGLTexture& operator=(const TOpenGLTexture&) = delete;

  /// Resizes the picture (contents become transparent black).
  void SetSize(int width, int height);
  int GetWidth() const { return FWidth; }
  int GetHeight() const { return FHeight; }
  /// Pixel (x, y), row 0 at the bottom as OpenGL counts; out of range is ignored.
  void SetPixel(int x, int y, const TOpenGLColor& color);
  TOpenGLColor GetPixel(int x, int y) const;
  /// The RGBA bytes, row after row from the bottom.
  std::vector<uint8_t>& Pixels() { return FPixels; }
  const std::vector<uint8_t>& Pixels() const { return FPixels; }
  /// Marks the picture changed: the next Bind uploads it.
  void Invalidate() { FDirty = true; }
  void SetFilter(TOpenGLTextureFilter filter);
  TOpenGLTextureFilter GetFilter() const { return FFilter; }

  /// Uploads when changed and binds the texture (needs the current context, whose view's bin is given).
  void Bind(const std::shared_ptr<TOpenGLResourceBin>& bin);
  void Release();
  /// Deletes the texture name (needs the current context; it is made again on the next Bind).
  void ReleaseOpenGL();

private:
  int FWidth = 0;
  int FHeight = 0;
  std::vector<uint8_t> FPixels;
  TOpenGLTextureFilter FFilter = TOpenGLTextureFilter::Nearest;
  uint32_t FName = 0;
  bool FDirty = true;
  std::weak_ptr<TOpenGLResourceBin> FBin;
};

/// How an object fills its faces.
enum class TOpenGLDrawStyle { Fill, Line, Point };

/// Base of everything drawn in a scene. The object owns its children; the view owns the top objects.
/// Render follows one fixed order: transform, material and colour, choice of the pass by alpha, the
/// stencil choice, picking name, line width and point size (times the view's reference scale), RenderData,
/// then the children.
class TOpenGLObject {
public:
  TOpenGLObject();
  virtual ~TOpenGLObject();
  TOpenGLObject(const TOpenGLObject&) = delete;
  TOpenGLObject& operator=(const TOpenGLObject&) = delete;

  /// The class name (for menus and logs).
  virtual std::string GetClassName() const { return "TOpenGLObject"; }
  /// Copies the common fields (not children, not the view) from source.
  virtual void Assign(const TOpenGLObject& source);
  /// Draws the object's own geometry in its local coordinates (context current, matrix and colour set).
  virtual void RenderData() {}
  /// Rebuilds the display list of objects that keep one (context current).
  virtual void CompileDisplayLists();
  /// Adds the object's commands to a context menu: (caption, action) pairs.
  virtual void AddObjectMenuToMenuItem(std::vector<std::pair<std::string, std::function<void()>>>& /*menu*/) {
  }
  /// Called after every change of a field.
  virtual void DoOnChange() {}
  /// The box of the object's own geometry in local coordinates (empty when it has none).
  virtual TOpenGLBox GetLocalBoundingBox() const { return FBox; }

  /// Draws the object and its children in the opaque (true) or transparent (false) pass.
  void Render(bool opaquePass);

  /// @{ Children, owned by this object.
  TOpenGLObject* AddObject(std::unique_ptr<TOpenGLObject> child);
  /// Removes and returns child (null when it isn't one).
  std::unique_ptr<TOpenGLObject> RemoveObject(TOpenGLObject* child);
  void ClearObjects();
  int GetObjectCount() const { return static_cast<int>(FChildren.size()); }
  TOpenGLObject* GetObject(int index) const { return FChildren[static_cast<size_t>(index)].get(); }
  TOpenGLObject* GetParent() const { return FParent; }
  /// @}

  /// @{ Fields; every setter reports the change (ObjectChanged).
  void SetPosition(const TOpenGLVector& v);
  void SetRotation(const TOpenGLVector& degrees);
  void SetRotationalCentre(const TOpenGLVector& v);
  void SetScale(const TOpenGLVector& v);
  void SetColor(const TOpenGLColor& c);
  void SetSelectedColor(const TOpenGLColor& c);
  /// With single colour on, RenderData uses the object colour only (no per-vertex colours).
  void SetSingleColor(bool value);
  void SetSpecularReflectivity(float value);
  void SetShininess(float value);
  void SetDrawStyle(TOpenGLDrawStyle style);
  void SetLineWidth(float width);
  void SetPointSize(float size);
  void SetName(const std::string& name);
  /// The picking name; 0 lets the view give a unique one when the object joins a scene.
  void SetIDNumber(uint32_t id);
  void SetSelectable(bool value);
  void SetSelected(bool value);
  void SetVisible(bool value);
  void SetUseTextures(bool value);
  /// Draw only where the view's stencil objects have drawn.
  void SetUseStencil(bool value);
  /// Draw in both passes whatever the alpha (for objects mixing opaque and transparent parts).
  void SetRenderInBothPasses(bool value);

  const TOpenGLVector& GetPosition() const { return FPosition; }
  const TOpenGLVector& GetRotation() const { return FRotation; }
  const TOpenGLVector& GetRotationalCentre() const { return FRotationalCentre; }
  const TOpenGLVector& GetScale() const { return FScale; }
  const TOpenGLColor& GetColor() const { return FColor; }
  const TOpenGLColor& GetSelectedColor() const { return FSelectedColor; }
  bool GetSingleColor() const { return FSingleColor; }
  TOpenGLDrawStyle GetDrawStyle() const { return FDrawStyle; }
  float GetLineWidth() const { return FLineWidth; }
  float GetPointSize() const { return FPointSize; }
  const std::string& GetName() const { return FName; }
  uint32_t GetIDNumber() const { return FIDNumber; }
  bool GetSelectable() const { return FSelectable; }
  bool GetSelected() const { return FSelected; }
  bool GetVisible() const { return FVisible; }
  bool GetUseTextures() const { return FUseTextures; }
  bool GetUseStencil() const { return FUseStencil; }
  bool GetRenderInBothPasses() const { return FRenderInBothPasses; }
  bool IsStencilObject() const { return FStencilObject; }
  /// @}

  /// The colour Render sets: the selected colour when selected.
  const TOpenGLColor& CurrentColor() const { return FSelected ? FSelectedColor : FColor; }
  /// Whether Render draws the object in the given pass.
  bool BelongsToPass(bool opaquePass) const;
  /// The transform from local to parent coordinates: position, rotation about the centre, scale.
  TOpenGLMatrix LocalTransform() const;
  /// The transform from local to view (top) coordinates.
  TOpenGLMatrix ModelTransform() const;
  /// The bounding box of the object and its children in parent coordinates.
  TOpenGLBox GetBoundingBox() const;

  /// @{ Textures: the first one is used when textures are on.
  TOpenGLTexture* AddTexture(std::unique_ptr<TOpenGLTexture> texture);
  int GetTextureCount() const { return static_cast<int>(FTextures.size()); }
  TOpenGLTexture* GetTexture(int index) const { return FTextures[static_cast<size_t>(index)].get(); }
  /// @}

  /// The view of the scene the object is in (null outside one).
  TOpenGLView* GetView() const { return FView; }
  /// Finds the object with the picking name id in this subtree.
  TOpenGLObject* FindByIDNumber(uint32_t id);

  /// Called around RenderData.
  std::function<void(TOpenGLObject*)> OnStartRendering;
  std::function<void(TOpenGLObject*)> OnRenderingFinished;
  /// Called after each change.
  std::function<void(TOpenGLObject*)> OnChange;

protected:
  /// Reports a change: DoOnChange, OnChange, and the view (display list, repaint).
  void ObjectChanged();
  /// Sets the box of the object's own geometry.
  void SetLocalBoundingBox(const TOpenGLBox& box) { FBox = box; }
  /// Whether the object keeps its geometry in a display list (rebuilt after a change).
  virtual bool UsesDisplayList() const { return false; }
  /// The scale the view draws line widths and point sizes with (1 on screen).
  double ReferenceScale() const;

private:
  friend class TOpenGLView;
  void AttachToView(TOpenGLView* view);
  void SetStencilObject(bool value) { FStencilObject = value; }

  TOpenGLVector FPosition;
  TOpenGLVector FRotation;
  TOpenGLVector FRotationalCentre;
  TOpenGLVector FScale{1, 1, 1};
  TOpenGLColor FColor{1, 1, 1, 1};
  TOpenGLColor FSelectedColor{1, 1, 0, 1};
  bool FSingleColor = true;
  float FSpecularReflectivity = 0;
  float FShininess = 0;
  TOpenGLDrawStyle FDrawStyle = TOpenGLDrawStyle::Fill;
  float FLineWidth = 1;
  float FPointSize = 1;
  std::string FName;
  uint32_t FIDNumber = 0;
  bool FSelectable = true;
  bool FSelected = false;
  bool FVisible = true;
  bool FUseTextures = false;
  bool FUseStencil = false;
  bool FRenderInBothPasses = false;
  bool FStencilObject = false;
  TOpenGLBox FBox;
  std::vector<std::unique_ptr<TOpenGLTexture>> FTextures;
  std::vector<std::unique_ptr<TOpenGLObject>> FChildren;
  TOpenGLObject* FParent = nullptr;
  TOpenGLView* FView = nullptr;
  uint32_t FDisplayList = 0;
  bool FListValid = false;
};
