// Tag files: writing and finding tags, loading with and without defaults, whole trees, corrupt input.
#include "common/Tagcontrol.h"

#include "common/OrvexException.h"
#include "support/TestSupport.h"

#include <cstring>

#include <gtest/gtest.h>

namespace {

class TagFileTest : public ::testing::Test {
protected:
  // Writes a file with identification "ORX_TEST" and a root list "Root"; body writes the children.
  template <typename Body>
  std::string Write(const std::string& name, Body body) {
    const std::string fileName = FDir.File(name);
    TFileHandle file = CreateTagFile(fileName, "ORX_TEST");
    EXPECT_NE(file, kInvalidFileHandle);
    TTagControl root;
    EXPECT_EQ(root.WriteTag(file, "Root", TTagKind::TagList), 1);
    body(file);
    EXPECT_EQ(root.CloseWriteTag(file), 1);
    CloseFile(file);
    return fileName;
  }

  // Opens a file written by Write and reads the root header.
  TFileHandle Open(const std::string& fileName, TTagControl& root) {
    TFileHandle file = kInvalidFileHandle;
    EXPECT_EQ(OpenTagFileForReading(fileName, {"ORX_TEST"}, file, root), 1);
    return file;
  }

  oxtest::TempDir FDir;
};

TEST_F(TagFileTest, HeaderLayoutIsExact) {
  const auto fileName = Write("layout.oxt", [](TFileHandle f) { TTagControl().SaveIntTag(f, "A", 7); });
  const std::string bytes = oxtest::ReadFileBytes(fileName);
  // 8 id + root header (4 + 4 name + 20) + child (4 + 1 + 20 + 4 payload).
  ASSERT_EQ(bytes.size(), 8u + 28u + 29u);
  EXPECT_EQ(bytes.substr(0, 8), "ORX_TEST");
  int64_t rootBegin = 0, rootEnd = 0, childBegin = 0, childEnd = 0;
  std::memcpy(&rootBegin, bytes.data() + 8 + 4 + 4 + 4, 8);
  std::memcpy(&rootEnd, bytes.data() + 8 + 4 + 4 + 12, 8);
  EXPECT_EQ(rootBegin, 8 + 4 + 4 + 20);      // offset of Kind + 20
  EXPECT_EQ(rootEnd, int64_t(bytes.size())); // the root extends to the end of the file
  std::memcpy(&childBegin, bytes.data() + rootBegin + 5 + 4, 8);
  std::memcpy(&childEnd, bytes.data() + rootBegin + 5 + 12, 8);
  EXPECT_EQ(childBegin, rootBegin + 5 + 20);
  EXPECT_EQ(childEnd, rootEnd); // the last child's End equals its parent's End
}

TEST_F(TagFileTest, ValuesRoundTripAndDefaults) {
  const int32_t ints[10] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
  const auto fileName = Write("values.oxt", [&](TFileHandle f) {
    TTagControl t;
    t.SaveIntTag(f, "Ints", ints, 10);
    t.SaveInt64Tag(f, "Big", int64_t(1) << 40);
    t.SaveDoubleTag(f, "Pi", 3.14159265358979);
    t.SaveBoolTag(f, "Flag", true);
    t.SaveAnsiStringTag(f, "Text", "5 \xC2\xB5m");
    t.SaveAnsiStringTag(f, "Empty", "");
    t.SaveIntTag(f, "", 42); // a tag of length-0 name is legal
  });
  TTagControl root;
  TFileHandle f = Open(fileName, root);
  TTagControl t;
  int32_t first = 0;
  EXPECT_EQ(t.LoadIntTag(f, "Ints", root, &first, 1), 1);
  EXPECT_EQ(first, 1); // count 1 on a tag of ten reads the first
  int64_t big = 0;
  EXPECT_EQ(t.LoadInt64Tag(f, "Big", root, &big), 1);
  EXPECT_EQ(big, int64_t(1) << 40);
  double pi = 0;
  EXPECT_EQ(t.LoadDoubleTag(f, "Pi", root, &pi), 1);
  EXPECT_DOUBLE_EQ(pi, 3.14159265358979);
  bool flag = false;
  EXPECT_EQ(t.LoadBoolTag(f, "Flag", root, &flag), 1);
  EXPECT_TRUE(flag);
  std::string text;
  EXPECT_EQ(t.LoadAnsiStringTag(f, "Text", root, text), 1);
  EXPECT_EQ(text, "5 \xC2\xB5m");
  EXPECT_EQ(t.LoadAnsiStringTag(f, "Empty", root, text), 1);
  EXPECT_EQ(text, "");
  EXPECT_EQ(t.End() - t.Begin(), 4); // an empty string is a 4-byte zero length
  int32_t unnamed = 0;
  EXPECT_EQ(t.LoadIntTag(f, "", root, &unnamed), 1);
  EXPECT_EQ(unnamed, 42);

  int32_t untouched = 99;
  EXPECT_EQ(t.LoadIntTag(f, "Missing", root, &untouched), -1);
  EXPECT_EQ(untouched, 99);
  int32_t defaulted[3] = {};
  EXPECT_EQ(t.LoadOrDefaultIntTag(f, "Missing", root, defaulted, 3, -5), 1);
  EXPECT_EQ(defaulted[2], -5);
  std::string s;
  EXPECT_EQ(t.LoadOrDefaultAnsiStringTag(f, "Missing", root, s, "dflt"), 1);
  EXPECT_EQ(s, "dflt");
  CloseFile(f);
}

TEST_F(TagFileTest, StringOnDiskIsWindows1252) {
  const auto fileName =
      Write("cp.oxt", [](TFileHandle f) { TTagControl().SaveAnsiStringTag(f, "U", "\xC2\xB5m"); });
  const std::string bytes = oxtest::ReadFileBytes(fileName);
  EXPECT_NE(bytes.find(std::string("\x02\x00\x00\x00\xb5m", 6)), std::string::npos);
}

TEST_F(TagFileTest, DoubleAndFloatPair) {
  const double values[2] = {1e40, 0.25};
  const auto fileName = Write("pair.oxt", [&](TFileHandle f) {
    TTagControl t;
    // The plain tag first: the "_D" tag must still win wherever it stands.
    t.SaveFloatTag(f, "Other", 1.5f);
    t.SaveDoubleAndFloatTag(f, "X", values, 2);
  });
  TTagControl root;
  TFileHandle f = Open(fileName, root);
  TTagControl t;
  double read[2] = {};
  EXPECT_EQ(t.LoadDoubleOrFloatTag(f, "X", root, read, 2), 1);
  EXPECT_EQ(read[0], 1e40);
  float asFloat[2] = {};
  EXPECT_EQ(t.LoadFloatTag(f, "X", root, asFloat, 2), 1);
  EXPECT_EQ(asFloat[0], 1e36f); // clamped through SafeDoubleToFloat
  EXPECT_EQ(asFloat[1], 0.25f);
  double other = 0;
  EXPECT_EQ(t.LoadDoubleOrFloatTag(f, "Other", root, &other), 1); // old float tag widened
  EXPECT_EQ(other, 1.5);
  double missing = 0;
  EXPECT_EQ(t.LoadDoubleOrFloatTag(f, "None", root, &missing), -1);
  EXPECT_EQ(t.LoadOrDefaultDoubleOrFloatTag(f, "None", root, &missing, 1, 7.0), 1);
  EXPECT_EQ(missing, 7.0);
  CloseFile(f);
}

TEST_F(TagFileTest, NestingFindsOnlyDirectChildren) {
  const auto fileName = Write("nest.oxt", [](TFileHandle f) {
    TTagControl outer, t;
    outer.WriteTag(f, "Outer", TTagKind::TagList);
    t.SaveIntTag(f, "Deep", 1);
    outer.CloseWriteTag(f);
    t.SaveIntTag(f, "After", 2); // lands behind the closed inner tag, not inside its header
  });
  TTagControl root;
  TFileHandle f = Open(fileName, root);
  TTagControl t, outer;
  int32_t v = 0;
  EXPECT_EQ(t.LoadIntTag(f, "Deep", root, &v), -1); // grandchildren are not seen
  EXPECT_EQ(t.LoadIntTag(f, "After", root, &v), 1);
  EXPECT_EQ(v, 2);
  ASSERT_EQ(outer.FindTag(f, "Outer", root), 1);
  EXPECT_EQ(t.LoadIntTag(f, "Deep", outer, &v), 1);
  EXPECT_EQ(v, 1);
  CloseFile(f);
}

TEST_F(TagFileTest, StringAndIntegerLists) {
  const std::vector<std::string> strings = {"a", "", "\xC3\xA4rger", "last"};
  const TIntList ids = {5, -1, 1 << 30};
  const auto fileName = Write("lists.oxt", [&](TFileHandle f) {
    TTagControl t;
    t.SaveStringList(f, "S", strings);
    t.SaveList(f, "L", ids);
    t.SaveList(f, "Empty", {});
  });
  TTagControl root;
  TFileHandle f = Open(fileName, root);
  TTagControl t;
  std::vector<std::string> readStrings = {"old"};
  EXPECT_EQ(t.LoadStringList(f, "S", root, readStrings), 1);
  EXPECT_EQ(readStrings, strings);
  EXPECT_EQ(t.LoadStringList(f, "Nope", root, readStrings), -1);
  EXPECT_TRUE(readStrings.empty()); // cleared in all cases
  TIntList list = {9};
  EXPECT_EQ(t.LoadList(f, "Nope", root, list), -1);
  EXPECT_EQ(list, TIntList{9}); // a missing tag leaves the list untouched
  EXPECT_EQ(t.LoadList(f, "L", root, list), 1);
  EXPECT_EQ(list, ids);
  EXPECT_EQ(t.LoadList(f, "Empty", root, list), 1);
  EXPECT_TRUE(list.empty());
  CloseFile(f);
}

TEST_F(TagFileTest, WholeTreeRoundTripIsByteIdentical) {
  const auto fileName = Write("tree.oxt", [](TFileHandle f) {
    TTagControl a, t;
    a.WriteTag(f, "A", TTagKind::TagList);
    const float fl[3] = {1, 2, 3};
    t.SaveFloatTag(f, "F", fl, 3);
    t.SaveAnsiStringTag(f, "S", "x");
    a.CloseWriteTag(f);
    t.SaveWordTag(f, "W", std::vector<uint16_t>{1, 2}.data(), 2);
  });
  TTagControl tree;
  ASSERT_EQ(tree.LoadTagListByFileName(fileName, "ORX_TEST"), 1);
  EXPECT_EQ(tree.Name(), "Root");
  float fl[3] = {};
  ASSERT_NE(tree.FindTagInList("A|F"), nullptr);
  EXPECT_EQ(tree.FindTagInList("A|F")->GetFloatTag(fl, 3), 1);
  EXPECT_EQ(fl[2], 3.0f);
  std::string s;
  EXPECT_EQ(tree.GetAnsiStringTagInList("A|S", s), 1);
  EXPECT_EQ(s, "x");

  const std::string copyName = FDir.File("copy.oxt");
  ASSERT_EQ(tree.SaveTagListToFileByName(copyName, "ORX_TEST"), 1);
  EXPECT_EQ(oxtest::ReadFileBytes(copyName), oxtest::ReadFileBytes(fileName));
  EXPECT_EQ(tree.LoadTagListByFileName(fileName, "ORX_OTHR"), -4);
  EXPECT_EQ(tree.LoadTagListByFileName(FDir.File("none"), "ORX_TEST"), -6);

  TTagControl root, sub;
  TFileHandle f = Open(fileName, root);
  EXPECT_EQ(sub.LoadTagListByTagName(f, "W", root), -1); // not a list
  ASSERT_EQ(sub.LoadTagListByTagName(f, "A", root), 1);
  EXPECT_EQ(sub.Name(), "A");
  ASSERT_NE(sub.Children(), nullptr);
  EXPECT_EQ(sub.Children()->size(), 2u);
  CloseFile(f);
}

TEST(TagTreeTest, SetGetAndPaths) {
  TTagControl root("Root", TTagKind::TagList);
  const int32_t v[2] = {1, 2};
  root.AddSubTag("A|B|C", TTagKind::Int, v, 2);
  root.AddSubTag("A|D", TTagKind::Double);
  EXPECT_THROW(root.AddSubTag("A|D", TTagKind::Int), OrvexException);
  int32_t got[2] = {};
  EXPECT_EQ(root.FindTagInList("A|B|C")->GetIntTag(got, 2), 1);
  EXPECT_EQ(got[1], 2);
  EXPECT_EQ(root.FindTagInList("A|B|C")->GetIntTag(got, 1), -1);     // count must match exactly
  EXPECT_EQ(root.FindTagInList("A|D")->SetFloatTag(nullptr, 0), -1); // wrong kind changes nothing
  EXPECT_EQ(root.FindTagInList("A|D")->SetOneDoubleTag(2.5), 1);
  double d = 0;
  EXPECT_EQ(root.GetDoubleTagInList("A|D", d), 1);
  EXPECT_EQ(d, 2.5);
  root.GetIntTagInListOrDefault("A|Missing", got[0], 77);
  EXPECT_EQ(got[0], 77);
  TTagControl leaf("Leaf", TTagKind::Int);
  EXPECT_THROW(leaf.AddSubTag("X", TTagKind::Int), OrvexException);
  const int64_t big = 1;
  EXPECT_THROW(TTagControl("I64", TTagKind::Int64, &big), OrvexException);
}

TEST(TagTreeTest, PathFollowsOnlyFirstChildOfAName) {
  TTagControl root("Root", TTagKind::TagList);
  root.Children()->push_back(TTagControl::CreateTag("Dup", TTagKind::TagList));
  root.Children()->push_back(TTagControl::CreateTag("Dup", TTagKind::TagList));
  root.Children()->back()->AddSubTag("Only", TTagKind::Bool);
  EXPECT_FALSE(root.IsTagInList("Dup|Only"));
}

TEST(TagTreeTest, CopyFromIsDeep) {
  TTagControl source("S", TTagKind::TagList);
  const std::string text = "hello";
  source.AddSubTag("T", TTagKind::AnsiString, &text);
  TTagControl copy;
  copy.CopyFrom(source);
  source.FindTagInList("T")->SetAnsiStringTag("changed");
  std::string s;
  EXPECT_EQ(copy.GetAnsiStringTagInList("T", s), 1);
  EXPECT_EQ(s, "hello");
}

// Every truncation and many single-byte corruptions of a valid file must end in a clean result.
TEST_F(TagFileTest, TruncatedAndCorruptFilesNeverCrash) {
  const auto fileName = Write("full.oxt", [](TFileHandle f) {
    TTagControl a, t;
    a.WriteTag(f, "List", TTagKind::TagList);
    t.SaveIntTag(f, "I", 5);
    t.SaveStringList(f, "SL", {"one", "two"});
    a.CloseWriteTag(f);
    t.SaveIntTag(f, "Last", 6);
  });
  const std::string bytes = oxtest::ReadFileBytes(fileName);
  const std::string damaged = FDir.File("damaged.oxt");
  auto probe = [&](const std::string& content) {
    oxtest::WriteFileBytes(damaged, content);
    TTagControl tree;
    tree.LoadTagListByFileName(damaged, "ORX_TEST");
    TTagControl root, t;
    TFileHandle f = kInvalidFileHandle;
    if (OpenTagFileForReading(damaged, {"ORX_TEST"}, f, root) == 1) {
      int32_t v = 0;
      std::vector<std::string> sl;
      TTagControl list;
      t.LoadIntTag(f, "Last", root, &v);
      if (list.FindTag(f, "List", root) == 1) t.LoadStringList(f, "SL", list, sl);
      CloseFile(f);
    }
  };
  for (size_t cut = 0; cut < bytes.size(); ++cut) probe(bytes.substr(0, cut));
  for (size_t i = 8; i < bytes.size(); ++i) {
    for (unsigned char value : {0x00, 0x7f, 0xff}) {
      std::string corrupt = bytes;
      corrupt[i] = static_cast<char>(value);
      probe(corrupt);
    }
  }
  // A truncated file shows up as a missing tag.
  oxtest::WriteFileBytes(damaged, bytes.substr(0, bytes.size() - 10));
  TTagControl root, t;
  TFileHandle f = kInvalidFileHandle;
  ASSERT_EQ(OpenTagFileForReading(damaged, {"ORX_TEST"}, f, root), 1);
  int32_t v = 0;
  EXPECT_EQ(t.LoadIntTag(f, "Last", root, &v), -1);
  CloseFile(f);
}

TEST_F(TagFileTest, NamesOfEveryLengthAroundOneReadAreFoundAndCutFilesRefused) {
  // A header is read in one piece of 256 bytes unless the name is longer: names on both sides of that
  // edge, values written at once (up to 4 KiB) and the long way, and a file that ends in such a header.
  std::vector<std::string> names;
  for (size_t length : {1, 200, 227, 231, 232, 233, 240, 300, 5000})
    names.push_back(std::string(length, 'n'));
  const std::string big(5000, 'v');
  const auto fileName = Write("names.oxt", [&](TFileHandle f) {
    TTagControl t;
    for (size_t i = 0; i < names.size(); ++i) {
      const int32_t value = static_cast<int32_t>(i) + 100;
      EXPECT_EQ(t.SaveIntTag(f, names[i], value), 1);
    }
    EXPECT_EQ(t.SaveAnsiStringTag(f, "Big", big), 1);
    EXPECT_EQ(t.SaveAnsiStringTag(f, "Small", "klein"), 1);
  });
  TTagControl root, t;
  TFileHandle f = Open(fileName, root);
  for (size_t i = names.size(); i-- > 0;) { // from the back: every search walks all tags before
    int32_t value = 0;
    EXPECT_EQ(t.LoadIntTag(f, names[i], root, &value), 1) << names[i].size();
    EXPECT_EQ(value, static_cast<int32_t>(i) + 100) << names[i].size();
  }
  std::string text;
  EXPECT_EQ(t.LoadAnsiStringTag(f, "Big", root, text), 1);
  EXPECT_EQ(text, big);
  EXPECT_EQ(t.LoadAnsiStringTag(f, "Small", root, text), 1);
  EXPECT_EQ(text, "klein");
  // ReadTag leaves the file at the payload.
  ASSERT_EQ(FileSeek(f, root.Begin(), TSeekOrigin::Begin), root.Begin());
  std::string first;
  ASSERT_EQ(t.ReadTag(f, first), 1);
  EXPECT_EQ(first, names[0]);
  EXPECT_EQ(FilePosition(f), t.Begin());
  CloseFile(f);

  // Cut inside the header of the tag with the 300-byte name, and inside that of the 240-byte one.
  const std::string bytes = oxtest::ReadFileBytes(fileName);
  for (const std::string& cutName : {names[7], names[6]}) {
    const size_t at = bytes.find(cutName);
    ASSERT_NE(at, std::string::npos);
    const std::string damaged = FDir.File("cut.oxt");
    oxtest::WriteFileBytes(damaged, bytes.substr(0, at + cutName.size() + 10));
    TTagControl cutRoot;
    TFileHandle g = kInvalidFileHandle;
    ASSERT_EQ(OpenTagFileForReading(damaged, {"ORX_TEST"}, g, cutRoot), 1);
    int32_t value = 0;
    EXPECT_EQ(t.LoadIntTag(g, cutName, cutRoot, &value), -1) << cutName.size();
    EXPECT_EQ(t.LoadIntTag(g, names[0], cutRoot, &value), 1); // what comes before is still there
    CloseFile(g);
  }
}

TEST_F(TagFileTest, HugeNameLengthIsRefusedWithoutAllocating) {
  std::string bytes = "ORX_TEST";
  const int32_t hugeLength = 0x7ffffff0;
  bytes.append(reinterpret_cast<const char*>(&hugeLength), 4);
  bytes.append(64, 'x');
  const std::string fileName = FDir.File("huge.oxt");
  oxtest::WriteFileBytes(fileName, bytes);
  TTagControl root;
  TFileHandle f = kInvalidFileHandle;
  EXPECT_EQ(OpenTagFileForReading(fileName, {"ORX_TEST"}, f, root), -1);
  TTagControl tree;
  EXPECT_EQ(tree.LoadTagListByFileName(fileName, "ORX_TEST"), -1);
}

TEST_F(TagFileTest, ZeroLengthLoopEndsTheWalk) {
  // A child whose End points back at its own header would loop forever without the advance rule.
  const auto fileName = Write("loop.oxt", [](TFileHandle f) { TTagControl().SaveIntTag(f, "A", 1); });
  std::string bytes = oxtest::ReadFileBytes(fileName);
  const int64_t childHeader = 8 + 28;
  std::memcpy(bytes.data() + childHeader + 5 + 12, &childHeader, 8);
  oxtest::WriteFileBytes(fileName, bytes);
  TTagControl root, t;
  TFileHandle f = Open(fileName, root);
  int32_t v = 0;
  EXPECT_EQ(t.LoadIntTag(f, "B", root, &v), -1);
  CloseFile(f);
}

TEST(TagErrorTest, Names) {
  EXPECT_EQ(GetTagErrorName(-4), "Wrong File Identification");
  EXPECT_EQ(GetTagErrorName(-7), "Wrong File Version");
  EXPECT_EQ(GetTagErrorName(-8), "Error Number = -8");
  EXPECT_EQ(GetTagErrorName(5), "Error Number = 5");
}

} // namespace
