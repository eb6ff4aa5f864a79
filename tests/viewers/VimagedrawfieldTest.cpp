// The image viewer's draw field: lines with both ends, the pen, flood fill stopped by a wall, counts and
// inversion, and round trips through every form tools take.
#include "viewers/Vimagedrawfield.h"

#include "data/Datafield.h"
#include "data/Dimage.h"
#include "support/TestDataObjects.h"

#include <gtest/gtest.h>

TEST(VimagedrawfieldTest, LinesPenAndCounts) {
  TImageDrawField field;
  EXPECT_FALSE(field.Exists());
  field.SetPixel(0, 0, true); // nothing without a field
  EXPECT_FALSE(field.GetPixel(0, 0));
  field.SetSize(10, 8);
  ASSERT_TRUE(field.Exists());

  field.SetLine(1, 1, 6, 6, true); // a diagonal: six pixels, both ends
  EXPECT_EQ(field.GetNumberOfPixels(true), 6);
  for (int i = 1; i <= 6; ++i) EXPECT_TRUE(field.GetPixel(i, i)) << i;
  field.SetLine(8, 2, 2, 4, true); // a shallow line backwards: one pixel per column
  EXPECT_TRUE(field.GetPixel(8, 2));
  EXPECT_TRUE(field.GetPixel(2, 4));
  EXPECT_EQ(field.GetNumberOfPixels(true), 6 + 7) << "the two lines cross between pixels";
  field.SetLine(-5, 7, 20, 7, true); // clipped to the picture
  for (int x = 0; x < 10; ++x) EXPECT_TRUE(field.GetPixel(x, 7));

  field.SetAll(false);
  field.DrawSinglePixelWithPen(0, 0, true, 3); // a 3 × 3 pen at the corner: four pixels inside
  EXPECT_EQ(field.GetNumberOfPixels(true), 4);
  field.DrawSinglePixelWithPen(5, 5, true, 2); // even widths reach one further to the right and down
  EXPECT_TRUE(field.GetPixel(5, 5) && field.GetPixel(6, 6) && !field.GetPixel(4, 4));
  field.Invert();
  EXPECT_EQ(field.GetNumberOfPixels(false), 8);
  EXPECT_EQ(field.GetNumberOfPixels(true), 80 - 8);
}

TEST(VimagedrawfieldTest, FloodFillStopsAtAWall) {
  TImageDrawField field;
  field.SetSize(7, 5);
  field.SetLine(3, 0, 3, 4, true); // a wall across the picture
  field.FloodFillGrow(0, 2, true);
  EXPECT_EQ(field.GetNumberOfPixels(true), 5 + 3 * 5) << "the left part and the wall";
  EXPECT_FALSE(field.GetPixel(4, 2));
  field.FloodFillGrow(0, 0, false); // left part and wall are one region of set pixels now
  EXPECT_EQ(field.GetNumberOfPixels(true), 0);
  field.FloodFillGrow(-1, 0, true); // outside: nothing
  EXPECT_EQ(field.GetNumberOfPixels(true), 0);
  // A diagonal gap doesn't let four-connected filling through.
  field.SetAll(false);
  field.SetLine(0, 2, 2, 0, true);
  field.FloodFillGrow(0, 0, true);
  EXPECT_EQ(field.GetNumberOfPixels(true), 3 + 3);
}

TEST(VimagedrawfieldTest, RoundTripsThroughEveryForm) {
  oxtest::EnsureMemoryStrategy();
  TImageDrawField field;
  field.SetSize(5, 3);
  field.SetPixel(0, 0, true);
  field.SetPixel(4, 0, true);
  field.SetPixel(2, 1, true);
  field.SetPixel(3, 2, true);

  bool linear[15];
  field.GetAsLinearArray(linear);
  EXPECT_TRUE(linear[4] && linear[2 + 5] && linear[3 + 10] && !linear[1]);
  TImageDrawField fromLinear;
  fromLinear.SetFromLinearArray(5, 3, linear);
  EXPECT_EQ(fromLinear, field);

  const auto dataField = field.GetAsDataField();
  ASSERT_NE(dataField, nullptr);
  EXPECT_EQ(dataField->Ranges(), (std::vector<int32_t>{5, 3}));
  TImageDrawField fromField;
  ASSERT_TRUE(fromField.SetFromDataField(*dataField));
  EXPECT_EQ(fromField, field);

  const auto paged = field.GetAsPartialMemoryArray();
  ASSERT_NE(paged, nullptr);
  EXPECT_TRUE(paged->GetValue(2, 1));
  EXPECT_FALSE(paged->GetValue(2, 2));
  TImageDrawField fromPaged;
  ASSERT_TRUE(fromPaged.SetFromPartialMemoryArray(*paged));
  EXPECT_EQ(fromPaged, field);

  TDImage image;
  image.SetFieldSize(5, 3);
  ASSERT_TRUE(field.GetToImage(image));
  EXPECT_EQ(image.GetField(3, 2), 1.0f);
  EXPECT_EQ(image.GetField(3, 1), 0.0f);
  TImageDrawField fromImage;
  fromImage.SetFromImage(image);
  EXPECT_EQ(fromImage, field);
  TDImage wrongSize;
  wrongSize.SetFieldSize(4, 3);
  EXPECT_FALSE(field.GetToImage(wrongSize));

  TImageDrawField none;
  EXPECT_EQ(none.GetAsDataField(), nullptr);
  EXPECT_EQ(none.GetAsPartialMemoryArray(), nullptr);
}
