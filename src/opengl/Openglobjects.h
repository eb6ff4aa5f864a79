// The scene objects the viewers build from: texts, axes with ticks and labels, markers, masks over ranges,
// meshes (an image is a flat textured mesh), cubes, planes and coordinate systems. Each keeps its
// geometry in plain members that tests read without a context; RenderData only issues the GL calls.
#pragma once

#include "common/Floatstyle.h"
#include "opengl/Openglbase.h"
#include "opengl/Openglfont.h"
#include "opengl/Openglticks.h"

#include <string>
#include <vector>

/// One line of text at the object's position (its anchor), in the view's 2D font (screen pixels) or 3D
/// font (model units).
class TOpenGLText : public TOpenGLObject {
public:
  std::string GetClassName() const override { return "TOpenGLText"; }
  void RenderData() override;

  void SetText(const std::string& text);
  const std::string& GetText() const { return FText; }
  /// Size in pixels (2D) or model units (3D); 0 takes the font's size.
  void SetFontSize(double size);
  double GetFontSize() const { return FFontSize; }
  void SetUse3DFont(bool value);
  bool GetUse3DFont() const { return FUse3DFont; }
  void SetAlignment(THorizontalAlignment horizontal, TVerticalAlignment vertical);
  THorizontalAlignment GetHorizontalAlignment() const { return FHorizontal; }
  TVerticalAlignment GetVerticalAlignment() const { return FVertical; }
  /// Turn of the text about its anchor, degrees counter-clockwise.
  void SetTextRotation(double degrees);
  double GetTextRotation() const { return FTextRotation; }
  /// The extent in the font's units (0 wide without a rasteriser or outside a view).
  TTextExtent Measure() const;

protected:
  TOpenGLFont* Font() const;

private:
  std::string FText;
  double FFontSize = 0;
  bool FUse3DFont = false;
  THorizontalAlignment FHorizontal = THorizontalAlignment::Left;
  TVerticalAlignment FVertical = TVerticalAlignment::Baseline;
  double FTextRotation = 0;
};

/// Several lines of text, one below the other, the first line's baseline at the anchor.
class TOpenGLMultiLineText : public TOpenGLText {
public:
  std::string GetClassName() const override { return "TOpenGLMultiLineText"; }
  void RenderData() override;
  /// Lines separated by '\n'.
  void SetLines(const std::vector<std::string>& lines);
  const std::vector<std::string>& GetLines() const { return FLines; }
  /// Distance of baselines as a multiple of the size (default 1.2).
  void SetLineSpacing(double factor);
  double GetLineSpacing() const { return FLineSpacing; }

private:
  std::vector<std::string> FLines;
  double FLineSpacing = 1.2;
};

/// What an axis writes at its ticks.
enum class TAxisLabelType { Value, None };

/// An axis: a line from Start to End in model units showing the world range WorldStart…WorldEnd, with
/// ticks, value labels (TOpenGLText children) placed along the label direction, a caption with a unit,
/// and an optional arrow at the end.
class TOpenGLAxis : public TOpenGLObject {
public:
  TOpenGLAxis();
  std::string GetClassName() const override { return "TOpenGLAxis"; }
  void RenderData() override;

  /// @{ Geometry and scale; each change recalculates ticks and labels.
  void SetStart(const TOpenGLVector& v);
  void SetEnd(const TOpenGLVector& v);
  void SetWorldStart(double value);
  void SetWorldEnd(double value);
  /// The direction (from the axis line) in which ticks and labels stand; unit length is taken.
  void SetDirectionVector(const TOpenGLVector& v);
  /// Labels are kept off the first and last part of the axis: positions 0…1 along it (default 0 and 1).
  void SetFirstLabelPos(double t);
  void SetLastLabelPos(double t);
  /// The largest number of ticks wanted (default 5).
  void SetTicks(int count);
  void SetLogarithmicScale(bool value);
  /// @}

  /// @{ Labels and caption.
  void SetLabelType(TAxisLabelType type);
  /// Number format of the labels and its digits (General: significant digits; Fixed: decimals).
  void SetLabelFormat(TFloatFormat format, int digits);
  /// Label size in model units (3D labels) and in pixels (2D labels, the default kind).
  void SetLabelFontSize(double size);
  void SetLabelFontSize2D(double pixels);
  void SetCaption(const std::string& caption);
  /// Where the caption stands along the axis (0…1, default 0.5).
  void SetCaptionPosition(double t);
  /// Distance of the caption from the axis line along the label direction, in label sizes (default 2.5).
  void SetCaptionDistance(double distance);
  void SetUnitCaption(const std::string& unit);
  void SetLabelRotation(double degrees);
  void SetLabelsVisible(bool value);
  void SetTicksVisible(bool value);
  /// Tick length in model units (default 5).
  void SetTickLength(double length);
  /// @}

  /// @{ Arrow at the end: a cone of diameter and length in model units.
  void SetArrowVisible(bool value);
  void SetArrowDiameter(double value);
  void SetArrowLength(double value);
  /// @}

  const TOpenGLVector& GetStart() const { return FStart; }
  const TOpenGLVector& GetEnd() const { return FEnd; }
  double GetWorldStart() const { return FWorldStart; }
  double GetWorldEnd() const { return FWorldEnd; }
  const TOpenGLVector& GetDirectionVector() const { return FDirection; }
  bool GetLogarithmicScale() const { return FLogarithmic; }
  /// Ticks now on the axis.
  int ActualNrOfTicks() const { return FTicks.TickCount(); }
  const TLabelAndTicks& Ticks() const { return FTicks; }
  /// Model position of the label of tick index (zero vector out of range).
  TOpenGLVector GetLabelPosition(int index) const;
  /// Model position of a world value on the axis line.
  TOpenGLVector WorldToPosition(double world) const;
  /// The label text of a value, in the axis's number format.
  std::string FormatLabel(double value) const;
  /// The caption shown: caption and unit ("Wavenumber [1/cm]").
  std::string FullCaption() const;
  /// The label objects (children) now on the axis.
  const std::vector<TOpenGLText*>& Labels() const { return FLabels; }

  /// Recalculates ticks and rebuilds the label objects (runs after each change of geometry or labels).
  void ChangeLabels();

private:
  double AxisLength() const { return (FEnd - FStart).Length(); }
  double LabelSize() const;
  void Changed();

  TOpenGLVector FStart;
  TOpenGLVector FEnd{100, 0, 0};
  double FWorldStart = 0;
  double FWorldEnd = 1;
  TOpenGLVector FDirection{0, -1, 0};
  double FFirstLabelPos = 0;
  double FLastLabelPos = 1;
  int FTickCount = 5;
  bool FLogarithmic = false;
  TAxisLabelType FLabelType = TAxisLabelType::Value;
  TFloatFormat FLabelFormat = TFloatFormat::General;
  int FLabelDigits = 6;
  double FLabelFontSize = 10;
  double FLabelFontSize2D = 12;
  bool FUse3DLabels = false;
  std::string FCaption;
  double FCaptionPosition = 0.5;
  double FCaptionDistance = 2.5;
  std::string FUnitCaption;
  double FLabelRotation = 0;
  bool FLabelsVisible = true;
  bool FTicksVisible = true;
  double FTickLength = 5;
  bool FArrowVisible = false;
  double FArrowDiameter = 6;
  double FArrowLength = 12;
  TLabelAndTicks FTicks;
  std::vector<TOpenGLText*> FLabels;
  TOpenGLText* FCaptionText = nullptr;
};

/// Shapes of a marker.
enum class TMarkerShape { Cross, Rectangle, Circle, Polygon, Line };

/// A marker: a shape of a size (model units) about the object's position, or a polygon/polyline through
/// points (an image viewer's transformation outline, a cursor line).
class TOpenGLMarker : public TOpenGLObject {
public:
  TOpenGLMarker();
  std::string GetClassName() const override { return "TOpenGLMarker"; }
  void RenderData() override;

  void SetShape(TMarkerShape shape);
  TMarkerShape GetShape() const { return FShape; }
  /// Width and height of cross, rectangle and circle.
  void SetSize(double width, double height);
  /// Points of Polygon (closed) and Line (open) shapes.
  void SetPoints(const std::vector<TOpenGLVector>& points);
  const std::vector<TOpenGLVector>& GetPoints() const { return FPoints; }
  /// Filled shapes (rectangle, circle, polygon) are drawn as area instead of outline.
  void SetFilled(bool value);
  /// The outline (or area) the marker draws, in local coordinates.
  std::vector<TOpenGLVector> Outline() const;

private:
  void UpdateBox();
  TMarkerShape FShape = TMarkerShape::Cross;
  double FWidth = 10;
  double FHeight = 10;
  bool FFilled = false;
  std::vector<TOpenGLVector> FPoints;
};

/// Rectangles in model units filled with the object's colour, usually semi-transparent: the masked
/// ranges of a spectrum, drawn over the curves in the transparent pass.
class TOpenGLMultiMask : public TOpenGLObject {
public:
  struct TRect {
    double Left = 0, Bottom = 0, Right = 0, Top = 0;
    bool operator==(const TRect&) const = default;
  };
  TOpenGLMultiMask();
  std::string GetClassName() const override { return "TOpenGLMultiMask"; }
  void RenderData() override;
  void SetRectangles(const std::vector<TRect>& rects);
  void AddRectangle(const TRect& rect);
  void ClearRectangles();
  const std::vector<TRect>& GetRectangles() const { return FRects; }
  /// Depth (z) the rectangles lie at.
  void SetDepth(double z);

private:
  void UpdateBox();
  std::vector<TRect> FRects;
  double FDepth = 0;
};

/// A box of the given size centred on the origin (local units).
class TOpenGLCube : public TOpenGLObject {
public:
  TOpenGLCube();
  std::string GetClassName() const override { return "TOpenGLCube"; }
  void RenderData() override;
  void SetSize(const TOpenGLVector& size);
  const TOpenGLVector& GetSize() const { return FSize; }

private:
  TOpenGLVector FSize{1, 1, 1};
};

/// A rectangle in the xy plane from (0, 0) to (width, height); textured with the first texture when
/// textures are on.
class TOpenGLFlatPlane : public TOpenGLObject {
public:
  TOpenGLFlatPlane();
  std::string GetClassName() const override { return "TOpenGLFlatPlane"; }
  void RenderData() override;
  void SetSize(double width, double height);
  double GetWidth() const { return FWidth; }
  double GetHeight() const { return FHeight; }

private:
  double FWidth = 1;
  double FHeight = 1;
};

/// Three axes from a common origin (children): x, y and z, each a TOpenGLAxis with its world range.
class TOpenGLCoordinateSystem : public TOpenGLObject {
public:
  TOpenGLCoordinateSystem();
  std::string GetClassName() const override { return "TOpenGLCoordinateSystem"; }
  /// Sets the model extent of the three axes (from the origin) and their world ranges.
  void SetExtent(const TOpenGLVector& size);
  void SetWorldRange(int axis, double start, double end);
  TOpenGLAxis* Axis(int index) const { return FAxes[index]; }

private:
  TOpenGLAxis* FAxes[3] = {};
};

/// A mesh over a regular grid of XDimension × YDimension points. With z values it is a surface of
/// triangle strips (one strip per row, vertices from FillIndexArrayRows), optionally closed at its sides
/// down to the lowest z. Without z values it is flat: one quad between its corners, coloured by the colour
/// texture (an image is drawn this way, as a texture, not per pixel). The colour texture has a size of its
/// own; by default one texel per grid point.
class TOpenGLMesh : public TOpenGLObject {
public:
  TOpenGLMesh();
  std::string GetClassName() const override { return "TOpenGLMesh"; }
  void RenderData() override;

  /// Sets the grid (z values become 0; the colour texture takes the same size).
  void SetDimensions(int xDimension, int yDimension);
  int GetXDimension() const { return FXDim; }
  int GetYDimension() const { return FYDim; }
  /// Grid spacing in model units (default 1 by 1).
  void SetSpacing(double dx, double dy);
  void SetZValue(int x, int y, double z);
  double GetZValue(int x, int y) const;
  /// All z values, x fastest.
  void SetZValues(const std::vector<float>& values);
  void SetUseZValues(bool value);
  bool GetUseZValues() const { return FUseZValues; }
  /// Corners of the flat mesh: (x0, y0) to (x1, y1); the flat mesh covers them exactly.
  void SetFlatCorners(double x0, double y0, double x1, double y1);
  void SetCloseBorders(bool value);

  /// @{ Colour texture.
  void SetColorTextureSize(int width, int height);
  void SetColorPoint(int x, int y, const TOpenGLColor& color);
  /// Colours of row y from its first texel on.
  void SetColorLine(int y, const std::vector<TOpenGLColor>& colors);
  void SetColorPointOpacity(int x, int y, float alpha);
  /// Sets the alpha of every texel.
  void MakeColorTextureTransparent(float alpha);
  void MakeColorTextureLineTransparent(int y, float alpha);
  /// Takes the texture's changes into the next drawing.
  void UpdateColorTexture();
  void SetTextureFilterMode(TOpenGLTextureFilter filter);
  TOpenGLTexture& ColorTexture() { return *FColorTexture; }
  /// @}

  /// Vertex indices of the strip of row y (between rows y and y + 1): alternating (x, y + 1), (x, y).
  std::vector<uint32_t> FillIndexArrayRows(int y) const;
  /// The side walls: quads (four vertices each) from the border points down to the lowest z.
  std::vector<TOpenGLVector> CloseBorders() const;
  /// Model position of grid point (x, y).
  TOpenGLVector GridPoint(int x, int y) const;

protected:
  bool UsesDisplayList() const override { return FUseZValues; }

private:
  void UpdateBox();
  int FXDim = 0;
  int FYDim = 0;
  double FDX = 1;
  double FDY = 1;
  std::vector<float> FZ;
  bool FUseZValues = false;
  bool FCloseBorders = false;
  double FX0 = 0, FY0 = 0, FX1 = 1, FY1 = 1;
  TOpenGLTexture* FColorTexture = nullptr;
};
