// The spectral-mask mark on a declaration: only a string can carry it, and the parameter stays a string
// whose text form is read and written as any other.
#include "common/OrvexException.h"
#include "common/parameters/Parametertable.h"

#include <gtest/gtest.h>

TEST(ParameterSpectralMask, OnlyAStringCarriesTheMarkAndStaysAString) {
  TParameterTable table;
  table.AddString("Fit Mask", "Fit Mask:", "all").SetSpectralMask();
  table.AddString("Caption", "Caption:", "x");
  EXPECT_THROW(table.AddInt("Order", "Order:", 3).SetSpectralMask(), OrvexException);
  EXPECT_TRUE(table.FindDeclaration("Fit Mask")->SpectralMask);
  EXPECT_FALSE(table.FindDeclaration("Caption")->SpectralMask);
  EXPECT_FALSE(table.FindDeclaration("Order")->SpectralMask);
  TUserParameterAdministrator administrator;
  table.CreateParameters(administrator);
  auto* mask = dynamic_cast<TUserStringParameter*>(administrator.GetUserParameterByName("Fit Mask"));
  ASSERT_NE(mask, nullptr);
  EXPECT_TRUE(administrator.SetParameterValuesFromText({"Fit Mask=500:600, 10:20 px"}).empty());
  EXPECT_EQ(mask->GetParameter(), "500:600, 10:20 px");
}
