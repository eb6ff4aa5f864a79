// Configuration sets in the project's settings file: user parameters of components written with the
// project settings and read back, sets missing from older files, versions.
#include "project/Configurationset.h"

#include "support/TestSupport.h"

#include <gtest/gtest.h>

namespace {

/// A component's parameters: an int with limits and a collection with a string.
struct TComponent {
  TComponent() {
    Parameters.Add<TUserIntParameter>(1, "Iterations", "Iterations", "", 10)->SetLimits(1, 1000);
    auto* output = Parameters.Add<TUserCollectionParameter>(2, "Output", "Output", "");
    output->GetNestedAdministrator().Add<TUserStringParameter>(3, "Suffix", "Suffix", "", " (Fit)");
    Parameters.AllParameterListChanged();
  }
  TUserIntParameter& Iterations() { return *Parameters.GetUserIntParameter(1); }
  TUserStringParameter& Suffix() { return *Parameters.GetUserStringParameter(3); }
  TUserParameterAdministrator Parameters;
};

TTagError SaveSettings(TProject& project, const std::string& name) {
  TFileHandle file = CreateTagFile(name, "");
  FileSeek(file, 0, TSeekOrigin::Begin);
  const TTagError result =
      project.SaveProjectSettingsToTagFile(file, TSaveProjectSettingsKind::ProjectSettings);
  CloseFile(file);
  return result;
}

TTagError LoadSettings(TProject& project, const std::string& name) {
  TFileHandle file = OpenFileForReading(name);
  const TTagError result =
      project.LoadProjectSettingsFromTagFile(file, TSaveProjectSettingsKind::ProjectSettings);
  CloseFile(file);
  return result;
}

} // namespace

TEST(ConfigurationSet, ParametersTravelWithTheProjectSettings) {
  oxtest::TempDir dir;
  TComponent fitting, pca;
  fitting.Iterations().SetParameter(400);
  fitting.Suffix().SetParameter(" (Peaks)");
  pca.Iterations().SetParameter(5);
  TConfigurationSet fittingSet("Advanced Fitting", fitting.Parameters, 2);
  TConfigurationSet pcaSet("PCA", pca.Parameters);
  TProject project;
  project.AddConfigurationSet(&fittingSet);
  project.AddConfigurationSet(&pcaSet);
  project.SetDataPath("/data");
  const std::string name = dir.File("settings.oxs");
  ASSERT_EQ(SaveSettings(project, name), teNoError);

  TTagControl root;
  ASSERT_EQ(root.LoadTagListByFileName(name, "ORX_PRSE"), teNoError);
  int32_t iterations = 0;
  EXPECT_EQ(
      root.GetIntTagInList("ProjectSettings|Advanced Fitting|User Parameter|Iterations|Value", iterations),
      teNoError);
  EXPECT_EQ(iterations, 400);
  std::string dataPath;
  EXPECT_EQ(root.GetAnsiStringTagInList("ProjectSettings|DataPath", dataPath), teNoError); // after the sets
  EXPECT_EQ(dataPath, "/data");

  TComponent fitting2, pca2;
  TConfigurationSet fittingSet2("Advanced Fitting", fitting2.Parameters);
  TConfigurationSet pcaSet2("PCA", pca2.Parameters);
  TProject other;
  other.AddConfigurationSet(&pcaSet2); // another order: sets are found by name
  other.AddConfigurationSet(&fittingSet2);
  ASSERT_EQ(LoadSettings(other, name), teNoError);
  EXPECT_EQ(fitting2.Iterations().GetParameter(), 400);
  EXPECT_EQ(fitting2.Suffix().GetParameter(), " (Peaks)");
  EXPECT_EQ(pca2.Iterations().GetParameter(), 5);
  EXPECT_EQ(fittingSet2.GetLoadedVersion(), 2);
  EXPECT_EQ(other.GetDataPath(), "/data");
}

TEST(ConfigurationSet, ASetMissingFromTheFileKeepsItsValues) {
  oxtest::TempDir dir;
  TProject project; // no sets at all: a settings file of an older program
  const std::string name = dir.File("old.oxs");
  ASSERT_EQ(SaveSettings(project, name), teNoError);

  TComponent component;
  component.Iterations().SetParameter(77);
  TConfigurationSet set("NMF", component.Parameters);
  TProject other;
  other.AddConfigurationSet(&set);
  ASSERT_EQ(LoadSettings(other, name), teNoError);
  EXPECT_EQ(component.Iterations().GetParameter(), 77);
  EXPECT_EQ(set.GetLoadedVersion(), -1);
}

TEST(ConfigurationSet, AWholeGlobalConfigurationIsOneEntry) {
  oxtest::TempDir dir;
  TComponent a, b;
  a.Iterations().SetParameter(3);
  b.Suffix().SetParameter("x");
  TGlobalConfiguration configuration;
  configuration.AddConfigurationSet("A", &a.Parameters);
  configuration.AddConfigurationSet("B", &b.Parameters);
  TGlobalConfigurationSet entry(configuration);
  TProject project;
  project.AddConfigurationSet(&entry);
  const std::string name = dir.File("global.oxs");
  ASSERT_EQ(SaveSettings(project, name), teNoError);

  TComponent a2, b2;
  TGlobalConfiguration loadedConfiguration;
  loadedConfiguration.AddConfigurationSet("A", &a2.Parameters);
  loadedConfiguration.AddConfigurationSet("B", &b2.Parameters);
  TGlobalConfigurationSet loadedEntry(loadedConfiguration);
  TProject other;
  other.AddConfigurationSet(&loadedEntry);
  ASSERT_EQ(LoadSettings(other, name), teNoError);
  EXPECT_EQ(a2.Iterations().GetParameter(), 3);
  EXPECT_EQ(b2.Suffix().GetParameter(), "x");
}
