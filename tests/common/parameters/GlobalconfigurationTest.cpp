// Tests of configuration sets: several sets in one file and one tree, versions, missing sets.
#include "common/parameters/Globalconfiguration.h"

#include "support/TestSupport.h"

#include <functional>

#include <gtest/gtest.h>

namespace {

/// Two small parameter sets as two tools would declare them.
struct TTwoTools {
  TTwoTools() {
    Filter.Add<TUserIntParameter>(1, "Size", "Size", "", 3)->SetLimits(1, 99);
    Filter.Add<TUserBoolParameter>(2, "Invert", "Invert", "", false);
    Filter.AllParameterListChanged();
    auto* group = Peaks.Add<TUserCollectionParameter>(1, "Search", "Search", "");
    group->GetNestedAdministrator().Add<TUserFloatParameter>(2, "Threshold", "Threshold", "", 1.0f);
    Peaks.Add<TUserStringParameter>(3, "Name", "Name", "", "Peaks");
    Peaks.AllParameterListChanged();
  }
  TUserParameterAdministrator Filter;
  TUserParameterAdministrator Peaks;
};

/// Writes the configuration below a list tag "ProjectSettings" into a new file; returns the file name.
std::string WriteSettingsFile(const oxtest::TempDir& dir, TGlobalConfiguration& configuration) {
  const std::string fileName = dir.File("settings.oxs");
  const TFileHandle file = CreateTagFile(fileName, "ORX_PRSE");
  EXPECT_NE(file, kInvalidFileHandle);
  TTagControl root;
  EXPECT_EQ(root.WriteTag(file, "ProjectSettings", TTagKind::TagList), teNoError);
  EXPECT_EQ(configuration.SaveConfigurationToTagFile(file), teNoError);
  EXPECT_EQ(root.CloseWriteTag(file), teNoError);
  CloseFile(file);
  return fileName;
}

TTagError ReadSettingsFile(const std::string& fileName, TGlobalConfiguration& configuration) {
  TFileHandle file = kInvalidFileHandle;
  TTagControl root;
  TTagError result = OpenTagFileForReading(fileName, {"ORX_PRSE"}, file, root);
  if (result < 1) return result;
  result = configuration.LoadConfigurationFromTagFile(file, root);
  CloseFile(file);
  return result;
}

} // namespace

TEST(GlobalConfiguration, SetsRoundTripThroughAFileInListOrder) {
  oxtest::TempDir dir;
  TTwoTools saved;
  saved.Filter.GetUserIntParameter(1)->SetParameter(42);
  saved.Filter.GetUserBoolParameter(2)->SetParameter(true);
  saved.Peaks.GetUserFloatParameter(2)->SetParameter(7.5f);
  saved.Peaks.GetUserStringParameter(3)->SetParameter("Bands");
  TGlobalConfiguration configuration;
  configuration.AddConfigurationSet("Image Filter", &saved.Filter, 2);
  configuration.AddConfigurationSet("Peak Finder", &saved.Peaks);
  const std::string fileName = WriteSettingsFile(dir, configuration);

  TTagControl root;
  ASSERT_EQ(root.LoadTagListByFileName(fileName, "ORX_PRSE"), teNoError);
  ASSERT_EQ(root.Children()->size(), 2u);
  EXPECT_EQ((*root.Children())[0]->Name(), "Image Filter");
  EXPECT_EQ((*root.Children())[1]->Name(), "Peak Finder");
  int32_t version = 0;
  EXPECT_EQ(root.GetIntTagInList("Image Filter|Version", version), teNoError);
  EXPECT_EQ(version, 2);
  int32_t size = 0;
  EXPECT_EQ(root.GetIntTagInList("Image Filter|User Parameter|Size|Value", size), teNoError);
  EXPECT_EQ(size, 42);

  // Loaded in the opposite order of registration: sets are found by name.
  TTwoTools loaded;
  TGlobalConfiguration other;
  other.AddConfigurationSet("Peak Finder", &loaded.Peaks);
  other.AddConfigurationSet("Image Filter", &loaded.Filter);
  ASSERT_EQ(ReadSettingsFile(fileName, other), teNoError);
  EXPECT_EQ(loaded.Filter.GetParameterValuesAsText(), saved.Filter.GetParameterValuesAsText());
  EXPECT_EQ(loaded.Peaks.GetParameterValuesAsText(), saved.Peaks.GetParameterValuesAsText());
}

TEST(GlobalConfiguration, AMissingSetKeepsItsValuesAndReportsTheVersion) {
  oxtest::TempDir dir;
  TTwoTools saved;
  TGlobalConfiguration onlyFilter;
  onlyFilter.AddConfigurationSet("Image Filter", &saved.Filter, 5);
  const std::string fileName = WriteSettingsFile(dir, onlyFilter);

  TTwoTools loaded;
  loaded.Peaks.GetUserStringParameter(3)->SetParameter("Changed");
  TGlobalConfiguration both;
  both.AddConfigurationSet("Image Filter", &loaded.Filter);
  both.AddConfigurationSet("Peak Finder", &loaded.Peaks);
  EXPECT_EQ(ReadSettingsFile(fileName, both), teNoError);
  EXPECT_EQ(loaded.Peaks.GetUserStringParameter(3)->GetParameter(), "Changed");

  TFileHandle file = kInvalidFileHandle;
  TTagControl root;
  ASSERT_EQ(OpenTagFileForReading(fileName, {"ORX_PRSE"}, file, root), teNoError);
  int32_t version = -1;
  EXPECT_EQ(TGlobalConfiguration::LoadConfigurationSetFromTagFile(file, root, "Image Filter", loaded.Filter,
                                                                  &version),
            teNoError);
  EXPECT_EQ(version, 5);
  EXPECT_EQ(TGlobalConfiguration::LoadConfigurationSetFromTagFile(file, root, "Peak Finder", loaded.Peaks),
            teTagNotFound);
  CloseFile(file);
}

TEST(GlobalConfiguration, TreeFormMatchesTheFileForm) {
  oxtest::TempDir dir;
  TTwoTools saved;
  saved.Peaks.GetUserFloatParameter(2)->SetParameter(3.25f);
  TGlobalConfiguration configuration;
  configuration.AddConfigurationSet("Image Filter", &saved.Filter, 3);
  configuration.AddConfigurationSet("Peak Finder", &saved.Peaks);
  TTagControl tree("ProjectSettings", TTagKind::TagList);
  ASSERT_EQ(configuration.SaveConfigurationToTagControl(tree), teNoError);
  TTagControl fromFile;
  ASSERT_EQ(fromFile.LoadTagListByFileName(WriteSettingsFile(dir, configuration), "ORX_PRSE"), teNoError);
  float threshold = 0;
  EXPECT_EQ(
      tree.GetFloatTagInList("Peak Finder|User Parameter|Search|User Parameter|Threshold|Value", threshold),
      teNoError);
  EXPECT_EQ(threshold, 3.25f);
  // The same tags in the same order on both paths.
  std::vector<std::string> treeNames, fileNames;
  const std::function<void(const TTagControl&, std::vector<std::string>&, const std::string&)> walk =
      [&](const TTagControl& tag, std::vector<std::string>& names, const std::string& prefix) {
        if (!tag.Children()) return;
        for (const auto& child : *tag.Children()) {
          names.push_back(prefix + child->Name() + ":" + TagKindName(child->Kind()));
          walk(*child, names, prefix + child->Name() + "|");
        }
      };
  walk(tree, treeNames, "");
  walk(fromFile, fileNames, "");
  EXPECT_EQ(treeNames, fileNames);

  TTwoTools loaded;
  TGlobalConfiguration other;
  other.AddConfigurationSet("Peak Finder", &loaded.Peaks);
  ASSERT_EQ(other.LoadConfigurationFromTagControl(tree), teNoError);
  EXPECT_FLOAT_EQ(loaded.Peaks.GetUserFloatParameter(2)->GetParameter(), 3.25f);
}

TEST(GlobalConfiguration, RegistryReplacesAndRemovesByName) {
  TTwoTools tools;
  TGlobalConfiguration configuration;
  configuration.AddConfigurationSet("A", &tools.Filter);
  configuration.AddConfigurationSet("B", &tools.Peaks);
  configuration.AddConfigurationSet("A", &tools.Peaks);
  EXPECT_EQ(configuration.GetConfigurationSetNames(), (std::vector<std::string>{"A", "B"}));
  EXPECT_EQ(configuration.GetConfigurationSet("A"), &tools.Peaks);
  EXPECT_TRUE(configuration.RemoveConfigurationSet("A"));
  EXPECT_FALSE(configuration.RemoveConfigurationSet("A"));
  EXPECT_EQ(configuration.GetConfigurationSet("A"), nullptr);
}
