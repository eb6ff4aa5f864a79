// Tests of the exception family: constructors, history chain, copies and class names.
#include "common/OrvexException.h"

#include <memory>

#include <gtest/gtest.h>

TEST(OrvexException, ConstructorsSetMessageAndSeverity) {
  OrvexException plain("TFoo::Bar: bad");
  EXPECT_EQ(plain.Message(), "TFoo::Bar: bad");
  EXPECT_STREQ(plain.what(), "TFoo::Bar: bad");
  EXPECT_EQ(plain.Severity(), OrvexExceptionSeverity::Normal);
  EXPECT_EQ(plain.ExceptionHistory(), nullptr);

  OrvexException severe(OrvexExceptionSeverity::Fatal, "worse");
  EXPECT_EQ(severe.Severity(), OrvexExceptionSeverity::Fatal);

  Exception base("platform failure");
  OrvexException takesOver(base);
  EXPECT_EQ(takesOver.Message(), "platform failure");
  ASSERT_NE(takesOver.ExceptionHistory(), nullptr);
  EXPECT_EQ(*takesOver.ExceptionHistory(), std::vector<std::string>{"Exception: platform failure"});

  OrvexExceptionMCC withSeverity(OrvexExceptionSeverity::High, base);
  EXPECT_EQ(withSeverity.Severity(), OrvexExceptionSeverity::High);
  EXPECT_EQ(withSeverity.Message(), "platform failure");
}

TEST(OrvexException, HistoryHoldsTheWholeChainOldestLast) {
  OrvexException inner("inner text");
  OrvexExceptionMathError middle("middle text", inner);
  OrvexExceptionMCC outer(OrvexExceptionSeverity::High, "outer text", middle);
  ASSERT_NE(outer.ExceptionHistory(), nullptr);
  EXPECT_EQ(*outer.ExceptionHistory(),
            (std::vector<std::string>{"Math Exception: middle text", "Orvex Exception: inner text"}));
  EXPECT_TRUE(ExceptionHistoryContainsString(outer, "inner"));
  EXPECT_TRUE(ExceptionHistoryContainsString(outer, "Math Exception"));
  EXPECT_FALSE(ExceptionHistoryContainsString(outer, "outer text"));
  EXPECT_FALSE(ExceptionHistoryContainsString(inner, "anything"));

  // A second initialisation replaces the history rather than adding to it.
  outer.InitExceptionHistory(inner);
  EXPECT_EQ(*outer.ExceptionHistory(), std::vector<std::string>{"Orvex Exception: inner text"});
}

TEST(OrvexException, CopiesAndClonesKeepTypeAndHistory) {
  OrvexExceptionMemoryAllocation original("TPartialMemoryArray::Allocate: 4 GB", OrvexException("no pages"));
  OrvexExceptionMemoryAllocation copy = original;
  ASSERT_NE(copy.ExceptionHistory(), nullptr);
  EXPECT_NE(copy.ExceptionHistory(), original.ExceptionHistory());
  EXPECT_EQ(*copy.ExceptionHistory(), *original.ExceptionHistory());

  std::unique_ptr<Exception> clone(original.Clone());
  EXPECT_NE(dynamic_cast<OrvexExceptionMemoryAllocation*>(clone.get()), nullptr);
  EXPECT_EQ(clone->ClassName(), "OrvexExceptionMemoryAllocation");
  EXPECT_EQ(GetExceptionClassNameAndMessage(*clone),
            "OrvexExceptionMemoryAllocation: TPartialMemoryArray::Allocate: 4 GB");

  OrvexException assigned("x");
  assigned = copy;
  EXPECT_EQ(assigned.Message(), original.Message());
  EXPECT_EQ(*assigned.ExceptionHistory(), *original.ExceptionHistory());

  EXPECT_EQ(OrvexExceptionSEHSource("a").ClassName(), "Orvex Structured Exception");
  EXPECT_EQ(OrvexExceptionMCCSiblingTriggered("a").ClassName(), "MCC Exception Sibling Triggered");
  EXPECT_EQ(OrvexException("a").ClassName(), "Orvex Exception");
}
