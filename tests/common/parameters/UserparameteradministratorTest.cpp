// Tests of the parameter administrator: lookup by paths, events and their thread check, files and trees,
// shadow loading, state sets, copying, and the generic text and listing interface.
#include "common/parameters/Userparameteradministrator.h"

#include "common/Logfile.h"
#include "support/TestSupport.h"

#include <atomic>
#include <thread>

#include <gtest/gtest.h>

namespace {

enum : int32_t {
  kOrder = 1,
  kWidth,
  kSmooth,
  kMethod,
  kCaption,
  kRun,
  kFit,
  kIterations,
  kTolerance,
  kFitRun
};

/// A tool's parameter set: four values, a trigger and a collection "Fit" with two members.
class TToolParameters : public TParameterCollection {
public:
  void CreateParameters(TUserParameterAdministrator& a) override {
    auto* order = a.Add<TUserIntParameter>(kOrder, "Order", "Polynomial order", "Order of the baseline", 3);
    order->SetLimits(0, 12);
    a.Add<TUserFloatParameter>(kWidth, "Width", "Width", "Half width in points", 2.0f);
    a.Add<TUserBoolParameter>(kSmooth, "Smooth", "Smooth", "", true);
    auto* method = a.Add<TUserListParameter>(kMethod, "Method", "Method", "", 1);
    method->AddListEntry("Polynomial", 1);
    method->AddListEntry("Spline", 2);
    a.Add<TUserStringParameter>(kCaption, "Caption", "Caption", "", "Result");
    a.Add<TUserTriggerParameter>(kRun, "Run", "Run", "");
    auto* fit = a.Add<TUserCollectionParameter>(kFit, "Fit", "Fit", "");
    auto& nested = fit->GetNestedAdministrator();
    nested.Add<TUserIntParameter>(kIterations, "Iterations", "Iterations", "", 100);
    auto* tolerance = nested.Add<TUserFloatParameter>(kTolerance, "Tolerance", "Tolerance", "", 0.5f);
    tolerance->SetLimits(0.0f, 1.0f);
    nested.Add<TUserTriggerParameter>(kFitRun, "Run", "Run fit", "");
  }
  TUserParameterProblems ValidateParameters(const TUserParameterAdministrator& a) const override {
    // Splines need a width of at least the order.
    if (a.GetUserListParameter(kMethod)->GetParameter() == 2 &&
        a.GetUserFloatParameter(kWidth)->GetParameter() <
            float(a.GetUserIntParameter(kOrder)->GetParameter()))
      return {{"Width", "must be at least the order for splines"}};
    return {};
  }
};

class UserParameterAdministratorTest : public ::testing::Test {
protected:
  void SetUp() override { Admin.CreateParameters(&Tool, true); }
  TUserIntParameter& Order() { return *Admin.GetUserIntParameter(kOrder); }
  TUserFloatParameter& Width() { return *Admin.GetUserFloatParameter(kWidth); }
  TUserIntParameter& Iterations() { return *Admin.GetUserIntParameter(kIterations); }
  TUserFloatParameter& Tolerance() { return *Admin.GetUserFloatParameter(kTolerance); }

  TToolParameters Tool;
  TUserParameterAdministrator Admin;
  oxtest::TempDir Dir;
};

} // namespace

TEST_F(UserParameterAdministratorTest, LookupByIdKindNameAndPath) {
  EXPECT_EQ(Admin.GetUserParameter(kIterations)->GetName(), "Iterations");
  EXPECT_EQ(Admin.GetUserIntParameter(kMethod), nullptr); // a list is not of kind int
  EXPECT_NE(Admin.GetUserListParameter(kMethod), nullptr);
  EXPECT_EQ(Admin.GetUserBoolParameter(kOrder), nullptr);
  EXPECT_EQ(Admin.GetUserParameter(999), nullptr);

  // The root's "Run" stands before the collection, so the first hit is the root's.
  EXPECT_EQ(Admin.GetUserParameterByName("Run")->GetId(), kRun);
  EXPECT_EQ(Admin.GetUserParameterByAbsoluteName("Fit|Run")->GetId(), kFitRun);
  EXPECT_EQ(Admin.GetUserParameterByAbsoluteName("Fit|Run")->GetAbsoluteName(), "Fit|Run");
  EXPECT_EQ(Admin.GetUserParameterByAbsoluteName("Tolerance")->GetId(), kTolerance);
  // A head that is no collection is returned and the rest ignored.
  EXPECT_EQ(Admin.GetUserParameterByAbsoluteName("Order|Anything")->GetId(), kOrder);
  EXPECT_EQ(Admin.GetUserParameterByAbsoluteName("Nothing|Order"), nullptr);
  EXPECT_EQ(Admin.GetUserParameterByAbsoluteName("Fit|Nothing"), nullptr);
}

TEST(UserParameterAdministratorLookup, NestedNamesShadowLaterOnes) {
  TUserParameterAdministrator a;
  auto* group = a.Add<TUserCollectionParameter>(1, "Group", "Group", "");
  group->GetNestedAdministrator().Add<TUserIntParameter>(2, "Value", "Value", "");
  a.Add<TUserIntParameter>(3, "Value", "Value", "");
  a.AllParameterListChanged();
  EXPECT_EQ(a.GetUserParameterByName("Value")->GetId(), 2);
  EXPECT_EQ(a.GetUserParameterByName("Value")->GetAbsoluteName(), "Group|Value");
}

TEST_F(UserParameterAdministratorTest, EventsReachTheFormAndTheOwnerAlsoFromCollections) {
  struct TForm : IUserParameterControlForm {
    void ParameterChanged(const TUserParameterList& changed, bool) override { Changed.push_back(changed[0]); }
    bool IsNewParameterOk(const TUserParameterList& changed) override {
      return changed[0]->GetName() != "Iterations" || Allow;
    }
    void ParameterStateChanged(TUserParameter* parameter) override { States.push_back(parameter); }
    std::vector<TUserParameter*> Changed, States;
    bool Allow = true;
  } form;
  Admin.ConnectGUI(&form);
  std::vector<std::string> heard;
  Admin.OnParameterChanged = [&](const TUserParameterList& changed, bool) {
    heard.push_back(changed[0]->GetAbsoluteName());
  };
  Order().SetParameter(5);
  Iterations().SetParameter(7);
  ASSERT_EQ(heard.size(), 2u);
  EXPECT_EQ(heard[1], "Fit|Iterations");
  EXPECT_EQ(form.Changed.size(), 2u);

  form.Allow = false;
  EXPECT_FALSE(Iterations().SetParameter(8));
  EXPECT_EQ(Iterations().GetParameter(), 7);
  Admin.OnIsNewParameterOk = [](const TUserParameterList& changed) {
    return changed[0]->GetName() != "Order";
  };
  EXPECT_FALSE(Order().SetParameter(6));

  Tolerance().SetEnabled(false);
  EXPECT_EQ(form.States.back(), &Tolerance());

  Admin.DisconnectGUI(&form);
  Width().SetParameter(3.0f);
  EXPECT_EQ(form.Changed.size(), 2u);
}

TEST_F(UserParameterAdministratorTest, OtherThreadsMayReadButTheirChangesAreLoggedAndDropped) {
  TLogFile log(false, false);
  const std::string logName = Dir.File("params.log");
  ASSERT_TRUE(log.Open(logName, true));
  TLogFile* previous = GlobalLogFile;
  GlobalLogFile = &log;
  int heard = 0;
  Admin.OnParameterChanged = [&](const TUserParameterList&, bool) { ++heard; };
  Order().SetParameter(4);
  ASSERT_EQ(heard, 1);

  int readInThread = -1;
  bool acceptedInThread = true;
  std::thread worker([&] {
    readInThread = Order().GetParameter();
    acceptedInThread = Order().SetParameter(9); // DoIsNewParameterOk answers false here
    Admin.DoParameterChanged({&Order()}, false);
  });
  worker.join();
  GlobalLogFile = previous;
  log.Close();

  EXPECT_EQ(readInThread, 4);
  EXPECT_FALSE(acceptedInThread);
  EXPECT_EQ(Order().GetParameter(), 4);
  EXPECT_EQ(heard, 1);
  const std::string text = oxtest::ReadFileBytes(logName);
  EXPECT_NE(text.find("TUserParameterAdministrator::DoIsNewParameterOk call not in main thread !"),
            std::string::npos);
  EXPECT_NE(text.find("TUserParameterAdministrator::DoParameterChanged call not in main thread !"),
            std::string::npos);
}

TEST_F(UserParameterAdministratorTest, HardwareSettingsFileRoundTripWithCollections) {
  Order().SetParameter(7);
  Width().SetParameter(4.25f);
  Width().SetSmallIncrement(0.25f);
  Admin.GetUserBoolParameter(kSmooth)->SetParameter(false);
  Admin.GetUserListParameter(kMethod)->SetParameter(2);
  Admin.GetUserStringParameter(kCaption)->SetParameter("Größe µm");
  Iterations().SetParameter(250);
  Tolerance().SetParameter(0.125f);
  const std::string fileName = Dir.File("hardware.oxh");
  ASSERT_EQ(Admin.SaveParameterValues(fileName, 3), teNoError);

  TTagControl root;
  ASSERT_EQ(root.LoadTagListByFileName(fileName, "ORX_HDSE"), teNoError);
  EXPECT_EQ(root.Name(), "Measurement Configuration");
  int32_t version = 0;
  EXPECT_EQ(root.GetIntTagInList("Version", version), teNoError);
  EXPECT_EQ(version, 3);
  float small = 0;
  EXPECT_EQ(root.GetFloatTagInList("User Parameter|Width|SmallIncrement", small), teNoError);
  EXPECT_EQ(small, 0.25f);
  int32_t iterations = 0;
  EXPECT_EQ(root.GetIntTagInList("User Parameter|Fit|User Parameter|Iterations|Value", iterations),
            teNoError);
  EXPECT_EQ(iterations, 250);
  EXPECT_FALSE(root.IsTagInList("User Parameter|Run|Value"));

  TToolParameters tool;
  TUserParameterAdministrator loaded;
  loaded.CreateParameters(&tool, true);
  ASSERT_EQ(loaded.LoadParameterValues(fileName), teNoError);
  EXPECT_EQ(loaded.GetParameterValuesAsText(), Admin.GetParameterValuesAsText());
  EXPECT_EQ(loaded.GetUserFloatParameter(kWidth)->GetSmallIncrement(), 0.25f);
  EXPECT_EQ(loaded.GetUserStringParameter(kCaption)->GetParameter(), "Größe µm");
}

TEST_F(UserParameterAdministratorTest, FilesOfOtherParameterListsLoadWithDefaults) {
  // A file of an older list: only "Order" with a value, "Width" without "Value", nothing else.
  TTagControl root("Measurement Configuration", TTagKind::TagList);
  int32_t order = 9;
  float step = 0.5f;
  root.AddSubTag("Version", TTagKind::Int, &order);
  root.AddSubTag("User Parameter|Order|Value", TTagKind::Int, &order);
  root.AddSubTag("User Parameter|Width|SmallIncrement", TTagKind::Float, &step);
  root.AddSubTag("User Parameter|Unknown|Value", TTagKind::Int, &order);
  const std::string fileName = Dir.File("old.oxh");
  ASSERT_EQ(root.SaveTagListToFileByName(fileName, "ORX_HDSE"), teNoError);

  Width().SetParameter(6.0f);
  Iterations().SetParameter(3);
  Tolerance().SetResetOnLoad(false);
  Tolerance().SetParameter(0.75f);
  ASSERT_EQ(Admin.LoadParameterValues(fileName), teNoError);
  EXPECT_EQ(Order().GetParameter(), 9);
  EXPECT_FLOAT_EQ(Width().GetParameter(), 2.0f); // the shadow's start: the default
  EXPECT_FLOAT_EQ(Width().GetSmallIncrement(), 0.5f);
  EXPECT_EQ(Iterations().GetParameter(), 100);        // collection missing: back to the default
  EXPECT_FLOAT_EQ(Tolerance().GetParameter(), 0.75f); // no reset: keeps the current value
}

TEST_F(UserParameterAdministratorTest, LoadedValuesObeyLimitsAndListenersRunAfterAllAreRead) {
  TTagControl root("Measurement Configuration", TTagKind::TagList);
  int32_t order = 40;
  float width = 7.5f;
  root.AddSubTag("User Parameter|Order|Value", TTagKind::Int, &order);
  root.AddSubTag("User Parameter|Width|Value", TTagKind::Float, &width);
  const std::string fileName = Dir.File("limits.oxh");
  ASSERT_EQ(root.SaveTagListToFileByName(fileName, "ORX_HDSE"), teNoError);

  std::vector<std::string> events;
  Admin.OnBeforeLoad = [&](TUserParameterAdministrator&) { events.push_back("before"); };
  Admin.OnAfterLoad = [&](TUserParameterAdministrator&) { events.push_back("after"); };
  float widthSeen = -1;
  Admin.OnParameterChanged = [&](const TUserParameterList& changed, bool) {
    if (changed[0] == &Order())
      widthSeen = Width().GetParameter(); // Width is read already, but taken over after Order
    events.push_back(changed[0]->GetName());
  };
  ASSERT_EQ(Admin.LoadParameterValues(fileName), teNoError);
  EXPECT_EQ(Order().GetParameter(), 12);
  EXPECT_FLOAT_EQ(widthSeen, 2.0f);
  EXPECT_FLOAT_EQ(Width().GetParameter(), 7.5f);
  ASSERT_GE(events.size(), 4u);
  EXPECT_EQ(events[0], "before");
  EXPECT_EQ(events[1], "after");
  EXPECT_EQ(events[2], "Order");
}

TEST_F(UserParameterAdministratorTest, BadFilesFailWithoutChangingValues) {
  Order().SetParameter(6);
  const int32_t one = 1;
  EXPECT_EQ(Admin.LoadParameterValues(Dir.File("missing.oxh")), teCreateFileForReadError);
  TTagControl root("Measurement Configuration", TTagKind::TagList);
  root.AddSubTag("User Parameter|Order|Value", TTagKind::Int, &one);
  ASSERT_EQ(root.SaveTagListToFileByName(Dir.File("wrong.oxs"), "ORX_PRSE"), teNoError);
  EXPECT_EQ(Admin.LoadParameterValues(Dir.File("wrong.oxs")), teWrongFileIdentification);
  TTagControl other("MemoryOptions", TTagKind::TagList);
  other.AddSubTag("Strategy", TTagKind::Int, &one);
  ASSERT_EQ(other.SaveTagListToFileByName(Dir.File("memory.oxh"), "ORX_HDSE"), teNoError);
  EXPECT_LT(Admin.LoadParameterValues(Dir.File("memory.oxh")), 1);
  EXPECT_EQ(Order().GetParameter(), 6);
  // Truncated at every length: never a crash, never a half-applied garbage value.
  ASSERT_EQ(Admin.SaveParameterValues(Dir.File("full.oxh")), teNoError);
  const std::string bytes = oxtest::ReadFileBytes(Dir.File("full.oxh"));
  for (size_t length = 0; length < bytes.size(); length += 7) {
    oxtest::WriteFileBytes(Dir.File("cut.oxh"), bytes.substr(0, length));
    Admin.LoadParameterValues(Dir.File("cut.oxh"));
    EXPECT_TRUE(Admin.ValidateParameters().empty()) << length;
  }
}

TEST_F(UserParameterAdministratorTest, SaveReplacesAnOldFileOnlyWhenComplete) {
  const std::string fileName = Dir.File("settings.oxh");
  oxtest::WriteFileBytes(fileName, "old content");
  ASSERT_EQ(Admin.SaveParameterValues(fileName), teNoError);
  EXPECT_NE(oxtest::ReadFileBytes(fileName), "old content");
  size_t files = 0;
  for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator(Dir.Path())) ++files;
  EXPECT_EQ(files, 1u); // no temporary file left behind
  EXPECT_EQ(Admin.SaveParameterValues(Dir.File("no/such/dir/x.oxh")), teCreateFileForWriteError);
}

TEST_F(UserParameterAdministratorTest, TagTreeRoundTripAndCopy) {
  Order().SetParameter(2);
  Tolerance().SetParameter(0.3f);
  Admin.GetUserListParameter(kMethod)->SetParameter(2);
  TTagControl tag("DefaultParameters", TTagKind::TagList);
  ASSERT_EQ(Admin.SaveParameterValuesToTagControl(&tag), teNoError);
  float tolerance = 0;
  EXPECT_EQ(tag.GetFloatTagInList("Fit|User Parameter|Tolerance|Value", tolerance), teNoError);

  TToolParameters tool;
  TUserParameterAdministrator other;
  other.CreateParameters(&tool, true);
  ASSERT_EQ(other.LoadParameterValuesFromTagControl(&tag), teNoError);
  EXPECT_EQ(other.GetParameterValuesAsText(), Admin.GetParameterValuesAsText());

  TUserParameterAdministrator third;
  third.CreateParameters(&tool, true);
  third.CopyParameterValues(Admin);
  EXPECT_EQ(third.GetParameterValuesAsText(), Admin.GetParameterValuesAsText());

  // A null tag returns every value to its default.
  ASSERT_EQ(other.LoadParameterValuesFromTagControl(nullptr), teNoError);
  EXPECT_EQ(other.GetUserIntParameter(kOrder)->GetParameter(), 3);
  EXPECT_FLOAT_EQ(other.GetUserFloatParameter(kTolerance)->GetParameter(), 0.5f);
}

TEST_F(UserParameterAdministratorTest, CopySkipsParametersOfAnotherKind) {
  TUserParameterAdministrator source;
  source.Add<TUserFloatParameter>(1, "Order", "Order", "", 8.0f);
  source.Add<TUserIntParameter>(2, "Iterations", "Iterations", "", 55);
  source.AllParameterListChanged();
  Admin.CopyParameterValues(source);
  EXPECT_EQ(Order().GetParameter(), 3);
  EXPECT_EQ(Iterations().GetParameter(), 55); // found by name inside the collection
}

TEST_F(UserParameterAdministratorTest, StateSetsEnableShowAndFalsify) {
  auto* smooth = Admin.GetUserBoolParameter(kSmooth);
  auto* fit = Admin.GetUserCollectionParameter(kFit);
  const TUserParameterSet orderAndFit{&Order(), fit};
  Admin.DisableParameterSet(orderAndFit);
  Admin.DisableParameterSet({&Order()});
  Admin.HideParameterSet({&Width()});
  Admin.FalsifyParameterSet({smooth});
  Admin.UpdateParameterState();
  EXPECT_FALSE(Order().GetEnabled());
  EXPECT_FALSE(fit->GetEnabled());
  EXPECT_FALSE(Iterations().GetEnabled()); // the collection hands its state on
  EXPECT_FALSE(Width().GetVisible());
  EXPECT_FALSE(smooth->GetParameter());

  Admin.EnableParameterSet(orderAndFit);
  Admin.UnfalsifyParameterSet({smooth});
  Admin.UpdateParameterState();
  EXPECT_FALSE(Order().GetEnabled()); // still in the second disabled set
  EXPECT_TRUE(Iterations().GetEnabled());
  EXPECT_TRUE(smooth->GetParameter());

  Admin.ClearStatusLists(true);
  EXPECT_TRUE(Order().GetEnabled());
  EXPECT_TRUE(Width().GetVisible());

  Admin.HideUnusedParameter({&Order(), &Tolerance()});
  Admin.UpdateParameterState();
  EXPECT_TRUE(Order().GetVisible());
  EXPECT_TRUE(fit->GetVisible()); // holds a used member
  EXPECT_TRUE(Tolerance().GetVisible());
  EXPECT_FALSE(Iterations().GetVisible());
  EXPECT_FALSE(Width().GetVisible());
}

TEST_F(UserParameterAdministratorTest, TextAssignmentsAreCheckedTogetherBeforeAnyIsSet) {
  const TUserParameterProblems problems = Admin.SetParameterValuesFromText(
      {"Order=5", "Width=abc", "Fit|Tolerance=2", "Nope=1", "Order|Width=1", "Run=1", "novalue"});
  ASSERT_EQ(problems.size(), 6u);
  EXPECT_EQ(problems[0].Parameter, "Width");
  EXPECT_EQ(problems[1], (TUserParameterProblem{"Fit|Tolerance", "2 is outside the limits 0 to 1"}));
  EXPECT_EQ(problems[2].Parameter, "Nope");
  EXPECT_EQ(problems[3].Parameter, "Order|Width");
  EXPECT_EQ(problems[4].Parameter, "Run");
  EXPECT_EQ(problems[5].Message, "expected name=value");
  EXPECT_EQ(Order().GetParameter(), 3); // nothing was set

  EXPECT_TRUE(Admin
                  .SetParameterValuesFromText({"Order=5", " Fit|Tolerance = 0.25", "Method=Polynomial",
                                               "Caption=a=b", "Iterations=7"})
                  .empty());
  EXPECT_EQ(Order().GetParameter(), 5);
  EXPECT_FLOAT_EQ(Tolerance().GetParameter(), 0.25f);
  EXPECT_EQ(Admin.GetUserStringParameter(kCaption)->GetParameter(), "a=b");
  EXPECT_EQ(Iterations().GetParameter(), 7);

  // Cross-parameter check of the collection after the values are set.
  const TUserParameterProblems cross = Admin.SetParameterValuesFromText({"Method=Spline", "Width=3"});
  ASSERT_EQ(cross.size(), 1u);
  EXPECT_EQ(cross[0].Parameter, "Width");
  // Limits narrowed after the value was set show up in the validation.
  Order().SetUpperLimit(4);
  const TUserParameterProblems limits = Admin.ValidateParameters();
  ASSERT_GE(limits.size(), 1u);
  EXPECT_EQ(limits[0], (TUserParameterProblem{"Order", "5 is outside the limits 0 to 4"}));
}

TEST_F(UserParameterAdministratorTest, DescribeWalksEveryParameterWithItsForm) {
  const std::vector<TUserParameterInfo> infos = Admin.DescribeParameters();
  ASSERT_EQ(infos.size(), 10u);
  std::vector<std::string> paths;
  for (const auto& info : infos) paths.push_back(info.AbsoluteName);
  EXPECT_EQ(paths, (std::vector<std::string>{"Order", "Width", "Smooth", "Method", "Caption", "Run", "Fit",
                                             "Fit|Iterations", "Fit|Tolerance", "Fit|Run"}));
  EXPECT_EQ(infos[0].Kind, TUserParameterKind::Int);
  EXPECT_EQ(infos[0].Caption, "Polynomial order");
  EXPECT_EQ(infos[0].Description, "Order of the baseline");
  EXPECT_TRUE(infos[0].HasUpperLimit);
  EXPECT_EQ(infos[0].UpperLimit, 12);
  EXPECT_EQ(infos[1].Value, "2");
  EXPECT_EQ(infos[1].SmallIncrement, 0.1f);
  EXPECT_EQ(infos[3].EntryNames, (std::vector<std::string>{"Polynomial", "Spline"}));
  EXPECT_EQ(infos[3].Value, "Polynomial");
  EXPECT_FALSE(infos[5].HasValue);
  EXPECT_EQ(infos[7].Depth, 1);
  // Every value text is accepted back.
  std::vector<std::string> assignments;
  for (const auto& info : infos)
    if (info.HasValue) assignments.push_back(info.AbsoluteName + "=" + info.Value);
  EXPECT_TRUE(Admin.SetParameterValuesFromText(assignments).empty());
}

TEST(UserParameterAdministratorIcons, IconIndexByName) {
  TUserParameterAdministrator a;
  a.SetIconList({"Start", "Stop"});
  EXPECT_EQ(a.GetIconIndexFromIconName("Stop"), 1);
  EXPECT_EQ(a.GetIconIndexFromIconName("Pause"), -1);
}

TEST(UserParameterAdministratorThreads, ReadersNeverSeeAHalfCopiedValue) {
  TUserParameterAdministrator a;
  auto* text = a.Add<TUserStringParameter>(1, "Text", "Text", "", std::string(4096, 'a'));
  a.AllParameterListChanged();
  std::atomic<bool> stop{false};
  std::atomic<int> torn{0};
  std::atomic<long> reads{0};
  std::vector<std::thread> readers;
  for (int t = 0; t < 3; ++t)
    readers.emplace_back([&] {
      while (!stop) {
        const std::string value = text->GetParameter();
        if (value.size() != 4096 || value.find_first_not_of(value[0]) != std::string::npos) ++torn;
        ++reads;
      }
    });
  for (int i = 0; i < 50000; ++i) text->SetParameter(std::string(4096, i % 2 ? 'b' : 'a'));
  while (reads < 1000) std::this_thread::yield();
  stop = true;
  for (auto& reader : readers) reader.join();
  EXPECT_EQ(torn, 0);
}
