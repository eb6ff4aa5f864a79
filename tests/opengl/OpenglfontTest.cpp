// Text without a rendering context: UTF-8 decoding, glyph atlas packing and growth, text layout and
// measurement with a rasteriser of known boxes, no rasteriser meaning no width; axes: ticks, labels,
// their places and texts, the margins from the width of "0", caption with unit.
#include "opengl/Openglobjects.h"
#include "opengl/Openglview.h"

#include <map>

#include <gtest/gtest.h>

namespace {

/// Glyphs of known boxes: every character 5 × 7 pixels (at size 10; scaled with the size), standing on
/// the baseline one pixel right of the pen, advance 7; a blank is empty with advance 4; '#' is missing.
class TBoxRasterizer : public IGlyphRasterizer {
public:
  bool RasterizeGlyph(const std::string&, int pixelSize, char32_t c, TGlyphBitmap& glyph) override {
    ++Calls[c];
    if (c == U'#') return false;
    const double f = pixelSize / 10.0;
    glyph.Advance = (c == U' ' ? 4 : 7) * f;
    if (c == U' ') return true;
    glyph.Width = static_cast<int>(5 * f);
    glyph.Height = static_cast<int>(7 * f);
    glyph.BearingX = 1;
    glyph.BearingY = glyph.Height;
    glyph.Coverage.assign(static_cast<size_t>(glyph.Width) * glyph.Height, static_cast<uint8_t>(c & 0xFF));
    return true;
  }
  TFontMetrics GetFontMetrics(const std::string&, int pixelSize) override {
    return {0.8 * pixelSize, 0.2 * pixelSize, 1.1 * pixelSize};
  }
  std::map<char32_t, int> Calls;
};

TEST(DecodeUTF8Test, UnitsAndBadBytes) {
  EXPECT_EQ(DecodeUTF8("µm"), (std::u32string{0xB5, U'm'}));
  EXPECT_EQ(DecodeUTF8("Å cm⁻¹"), (std::u32string{0xC5, U' ', U'c', U'm', 0x207B, 0xB9}));
  EXPECT_EQ(DecodeUTF8("\xF0\x9F\x94\xAC"), std::u32string{0x1F52C});
  // A lone continuation byte, a cut sequence, an overlong form and a surrogate each read as U+FFFD.
  EXPECT_EQ(DecodeUTF8("a\x80z"), (std::u32string{U'a', 0xFFFD, U'z'}));
  EXPECT_EQ(DecodeUTF8("\xE2\x81"), (std::u32string{0xFFFD, 0xFFFD}));
  EXPECT_EQ(DecodeUTF8("\xC0\xAF"), (std::u32string{0xFFFD, 0xFFFD}));
  EXPECT_EQ(DecodeUTF8("\xED\xA0\x80"), (std::u32string{0xFFFD, 0xFFFD, 0xFFFD}));
}

TEST(GlyphAtlasTest, LayoutPlacesGlyphsOnWholePixelsAlongThePen) {
  TBoxRasterizer rasterizer;
  TGlyphAtlas atlas("Test", 10);
  double width = 0;
  const auto quads = atlas.Layout(U"ab c#", &rasterizer, width);
  // a, b, c drawn; the blank only advances; the missing # adds nothing.
  ASSERT_EQ(quads.size(), 3u);
  EXPECT_DOUBLE_EQ(width, 7 + 7 + 4 + 7);
  EXPECT_DOUBLE_EQ(quads[0].X0, 1);
  EXPECT_DOUBLE_EQ(quads[1].X0, 8);
  EXPECT_DOUBLE_EQ(quads[2].X0, 19);
  EXPECT_DOUBLE_EQ(quads[2].X1 - quads[2].X0, 5);
  EXPECT_DOUBLE_EQ(quads[0].Y0, 0);
  EXPECT_DOUBLE_EQ(quads[0].Y1, 7);
  // Each character is rasterised once, also a missing one.
  atlas.Layout(U"aa##", &rasterizer, width);
  EXPECT_EQ(rasterizer.Calls[U'a'], 1);
  EXPECT_EQ(rasterizer.Calls[U'#'], 1);
}

TEST(GlyphAtlasTest, TextureCoordinatesFindEachGlyphsCoverageAlsoAfterGrowth) {
  TBoxRasterizer rasterizer;
  TGlyphAtlas atlas("Test", 20); // 10 × 14 glyphs: 23 to a shelf of the 256-wide atlas
  std::u32string text;
  for (char32_t c = 0x100; c < 0x100 + 200; ++c) text.push_back(c);
  double width = 0;
  const int startHeight = atlas.Texture().GetHeight();
  const auto quads = atlas.Layout(text, &rasterizer, width);
  ASSERT_EQ(quads.size(), text.size());
  EXPECT_GT(atlas.Texture().GetHeight(), startHeight);
  EXPECT_EQ(atlas.GlyphCount(), 200);
  const TOpenGLTexture& texture = atlas.Texture();
  for (size_t i = 0; i < quads.size(); ++i) {
    // The texel inside each quad's top-left corner holds that glyph's coverage (its low byte).
    const int x = static_cast<int>(quads[i].U0 * texture.GetWidth());
    const int row = static_cast<int>(quads[i].V1 * texture.GetHeight());
    const uint8_t alpha = texture.Pixels()[(static_cast<size_t>(row) * texture.GetWidth() + x) * 4 + 3];
    EXPECT_EQ(alpha, static_cast<uint8_t>(text[i] & 0xFF)) << "glyph " << i;
    EXPECT_NEAR((quads[i].U1 - quads[i].U0) * texture.GetWidth(), 10, 1e-4);
    EXPECT_NEAR((quads[i].V0 - quads[i].V1) * texture.GetHeight(), 14, 1e-4);
  }
}

TEST(OpenGLFontTest, MeasuresAlignAndScaleWithTheFontKind) {
  TBoxRasterizer rasterizer;
  TOpenGL2DFont font2D("Test", 10);
  EXPECT_EQ(font2D.MeasureText("abc").Width, 0); // no rasteriser: no width
  font2D.SetRasterizer(&rasterizer);
  const TTextExtent e = font2D.MeasureText("abc");
  EXPECT_DOUBLE_EQ(e.Width, 21);
  EXPECT_DOUBLE_EQ(e.Ascent, 8);
  EXPECT_DOUBLE_EQ(e.Descent, 2);
  EXPECT_DOUBLE_EQ(font2D.MeasureText("abc", 20).Width, 42);
  // A 3D font of size 5 model units rasterised at 50 pixels: a tenth of the pixels.
  TOpenGL3DFont font3D("Test", 5);
  font3D.RasterPixelSize = 50;
  font3D.SetRasterizer(&rasterizer);
  EXPECT_NEAR(font3D.MeasureText("ab").Width, 7.0, 1e-12);
}

TEST(OpenGLAxisTest, ZeroWorldRangeGivesNoTicksAndNoLabels) {
  TOpenGLAxis axis;
  axis.SetEnd({500, 0, 0});
  axis.SetWorldStart(3);
  axis.SetWorldEnd(3);
  EXPECT_EQ(axis.ActualNrOfTicks(), 0);
  EXPECT_TRUE(axis.Labels().empty());
  EXPECT_EQ(axis.GetObjectCount(), 0);
}

TEST(OpenGLAxisTest, LabelsStandAtTheTicksOffTheAxisWithTheirValues) {
  TOpenGLView view;
  TBoxRasterizer rasterizer;
  view.SetGlyphRasterizer(&rasterizer);
  auto owned = std::make_unique<TOpenGLAxis>();
  TOpenGLAxis* axis = owned.get();
  view.AddObject(std::move(owned));
  axis->SetStart({50, 40, 0});
  axis->SetEnd({550, 40, 0});
  axis->SetDirectionVector({0, -3, 0}); // labels below; taken as a unit vector
  axis->SetLabelFontSize2D(10);
  axis->SetWorldStart(0);
  axis->SetWorldEnd(1000);
  axis->SetTicks(5);
  // "0" is 7 pixels wide: margins of 3.5 at each end keep 0 and 1000 off the ends; the step of
  // (993 - 7) / 5 cut to one digit is 100.
  ASSERT_EQ(axis->ActualNrOfTicks(), 9);
  ASSERT_EQ(axis->Labels().size(), 9u);
  for (int i = 0; i < 9; ++i) {
    const TOpenGLText* label = axis->Labels()[static_cast<size_t>(i)];
    const double value = 100.0 * (i + 1);
    EXPECT_EQ(label->GetText(), std::to_string(static_cast<int>(value)));
    // On the axis at the value, then 0.8 label sizes down.
    EXPECT_NEAR(label->GetPosition().X, 50 + value / 2, 1e-9);
    EXPECT_NEAR(label->GetPosition().Y, 40 - 8, 1e-9);
    EXPECT_EQ(label->GetHorizontalAlignment(), THorizontalAlignment::Center);
    EXPECT_EQ(label->GetVerticalAlignment(), TVerticalAlignment::Top);
    EXPECT_FALSE(label->GetSelectable());
  }
  // Labels off; caption with unit as one more child.
  axis->SetLabelsVisible(false);
  axis->SetCaption("Wavenumber");
  axis->SetUnitCaption("cm⁻¹");
  EXPECT_EQ(axis->FullCaption(), "Wavenumber [cm⁻¹]");
  EXPECT_TRUE(axis->Labels().empty());
  ASSERT_EQ(axis->GetObjectCount(), 1);
  EXPECT_EQ(static_cast<TOpenGLText*>(axis->GetObject(0))->GetText(), "Wavenumber [cm⁻¹]");
  EXPECT_EQ(axis->ActualNrOfTicks(), 9); // ticks stay
}

TEST(OpenGLAxisTest, LogarithmicAxisAndLabelFormats) {
  TOpenGLAxis axis;
  axis.SetEnd({300, 0, 0});
  axis.SetWorldStart(1);
  axis.SetWorldEnd(1000);
  axis.SetLogarithmicScale(true);
  // Without a font "0" counts 1 wide: margins of half a unit keep 1 and 1000 off the ends.
  ASSERT_EQ(axis.ActualNrOfTicks(), 2);
  EXPECT_EQ(axis.Labels()[0]->GetText(), "10");
  EXPECT_EQ(axis.Labels()[1]->GetText(), "100");
  EXPECT_NEAR(axis.WorldToPosition(100).X, 200, 1e-9);
  EXPECT_NEAR(axis.Labels()[1]->GetPosition().X, 200, 1e-9);
  axis.SetLabelFormat(TFloatFormat::Fixed, 2);
  EXPECT_EQ(axis.Labels()[0]->GetText(), "10.00");
  axis.SetLabelFormat(TFloatFormat::Exponent, 1);
  EXPECT_EQ(axis.FormatLabel(1500), "1.5e+03");
  // A sum that misses 0 by rounding shows 0.
  axis.SetLabelFormat(TFloatFormat::General, 6);
  EXPECT_EQ(axis.FormatLabel(1e-17), "0");
  // Labels kept off the first half of the axis: 10 (at a third) loses its label, not its tick.
  axis.SetFirstLabelPos(0.5);
  ASSERT_EQ(axis.Labels().size(), 1u);
  EXPECT_EQ(axis.Labels()[0]->GetText(), "100");
  EXPECT_EQ(axis.ActualNrOfTicks(), 2);
}

TEST(OpenGLAxisTest, TextWithoutRasteriserHasNoWidth) {
  TOpenGLView view;
  auto text = std::make_unique<TOpenGLText>();
  text->SetText("Intensity [counts]");
  TOpenGLText* raw = static_cast<TOpenGLText*>(view.AddObject(std::move(text)));
  EXPECT_EQ(raw->Measure().Width, 0);
  TBoxRasterizer rasterizer;
  view.SetGlyphRasterizer(&rasterizer);
  EXPECT_GT(raw->Measure().Width, 0);
}

} // namespace
