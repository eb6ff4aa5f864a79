// One object through a tag file and back: written under a root list tag, read into another object. Shared
// by the data-object suites, so that each tests its own class and not a copy of this plumbing.
#pragma once

#include "data/Dcustom.h"
#include "support/TestSupport.h"

#include <memory>
#include <string>

#include <gtest/gtest.h>

namespace oxtest {

/// Saves object under a root tag into fileName (the save must succeed) and loads the file into back;
/// returns the load's result.
inline TTagError SaveAndLoad(TData& object, TData& back, const std::string& fileName) {
  TFileHandle f = CreateTagFile(fileName, "ORX_TEST");
  TTagControl root;
  root.WriteTag(f, "Root", TTagKind::TagList);
  EXPECT_EQ(object.SaveDataToTagFile(f), 1);
  root.CloseWriteTag(f);
  CloseFile(f);
  TFileHandle in = kInvalidFileHandle;
  TTagControl readRoot;
  EXPECT_EQ(OpenTagFileForReading(fileName, {"ORX_TEST"}, in, readRoot), 1);
  const TTagError result = back.LoadDataFromTagFile(in, readRoot);
  CloseFile(in);
  return result;
}

/// The object written and read back into a fresh T. With loadResult the load's result goes there;
/// without, the load must succeed.
template <class T>
std::unique_ptr<T> RoundTrip(TData& object, const TempDir& dir, TTagError* loadResult = nullptr) {
  auto back = std::make_unique<T>();
  const TTagError result = SaveAndLoad(object, *back, dir.File("object.oxt"));
  if (loadResult)
    *loadResult = result;
  else
    EXPECT_EQ(result, 1);
  return back;
}

} // namespace oxtest
