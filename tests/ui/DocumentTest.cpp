#include "ui/Document.h"

#include <gtest/gtest.h>

namespace ui {
namespace {

class DocumentTest : public ::testing::Test {
 protected:
  DocumentTest() {
    doc.SetObserver([this] { ++notices; });
  }
  Document doc;
  int notices = 0;
};

TEST_F(DocumentTest, SettingTheValueAlreadyThereNeitherDirtiesNorNotifies) {
  doc.SetText("A", "1");
  doc.Enable("B", false);
  doc.TakeChanges();
  notices = 0;

  doc.SetText("A", "1");
  doc.Enable("B", false);
  EXPECT_FALSE(doc.Dirty());
  EXPECT_EQ(notices, 0);
  EXPECT_TRUE(doc.TakeChanges().Empty());
}

TEST_F(DocumentTest, ABatchCarriesOnlyThePropertiesThatDifferFromWhatWasSent) {
  doc.SetText("A", "1");
  doc.SetChecked("C", true);
  doc.TakeChanges();

  doc.SetText("A", "2");
  doc.SetChecked("C", true);  // unchanged
  doc.SetDisplay("W", "inline");
  doc.SetBackground("S", "#ff0000");
  EXPECT_EQ(notices, 2) << "one notice per turn from clean to dirty";

  const DocumentDelta delta = doc.TakeChanges();
  ASSERT_EQ(delta.elements.size(), 3u);
  EXPECT_EQ(delta.elements.at("A").value, "2");
  EXPECT_FALSE(delta.elements.at("A").checked);
  EXPECT_EQ(delta.elements.at("W").display, "inline");
  EXPECT_EQ(delta.elements.at("S").background, "#ff0000");
  EXPECT_FALSE(delta.elements.count("C"));
  EXPECT_FALSE(doc.Dirty());
}

TEST_F(DocumentTest, AValueChangedAndChangedBackBeforeTheBatchSendsNothing) {
  doc.SetText("A", "1");
  doc.TakeChanges();
  doc.SetText("A", "2");
  doc.SetText("A", "1");
  EXPECT_TRUE(doc.TakeChanges().Empty());
}

TEST_F(DocumentTest, TheSnapshotHoldsEverySetPropertyButNoScrollCommandAndKeepsTracking) {
  doc.SetText("A", "1");
  doc.TakeChanges();
  doc.SetText("B", "2");
  doc.PageDown("B");

  const DocumentDelta all = doc.Snapshot();
  EXPECT_EQ(all.elements.size(), 2u);
  EXPECT_EQ(all.elements.at("A").value, "1");
  EXPECT_TRUE(all.scrolls.empty());

  // The snapshot was for one late browser; the others still get the change.
  const DocumentDelta delta = doc.TakeChanges();
  EXPECT_EQ(delta.elements.size(), 1u);
  EXPECT_EQ(delta.elements.at("B").value, "2");
  ASSERT_EQ(delta.scrolls.size(), 1u);
  EXPECT_EQ(delta.scrolls[0].command, ScrollCommand::kPageDown);
}

TEST_F(DocumentTest, AReadBackGivesWhatWasSetAndNeutralValuesForUnsetElements) {
  EXPECT_EQ(doc.Text("none"), "");
  EXPECT_FALSE(doc.Checked("none"));
  EXPECT_TRUE(doc.Enabled("none"));
  EXPECT_EQ(doc.SliderPosition("none"), 0);
  doc.SetSliderPosition("L", -40);
  EXPECT_EQ(doc.SliderPosition("L"), -40);
  doc.SetText("L", "12a");
  EXPECT_EQ(doc.SliderPosition("L"), 0);
}

// A refused text goes back even though the value it returns to is the one sent before: the
// browser that typed it shows something else.
TEST_F(DocumentTest, ABrowserValueIsResentEvenWhenTheCodeRestoresTheOldValue) {
  doc.SetText("Raw", "500");
  doc.TakeChanges();
  doc.TakeBrowserValue("Raw", std::string("12a"), std::nullopt);
  EXPECT_EQ(doc.Text("Raw"), "12a");
  doc.SetText("Raw", "500");
  const DocumentDelta delta = doc.TakeChanges();
  ASSERT_TRUE(delta.elements.count("Raw"));
  EXPECT_EQ(delta.elements.at("Raw").value, "500");
}

TEST_F(DocumentTest, ABrowserTickIsReadBackAndPassedOnToTheOtherBrowsers) {
  doc.SetChecked("Box", false);
  doc.TakeChanges();
  doc.TakeBrowserValue("Box", std::nullopt, true);
  EXPECT_TRUE(doc.Checked("Box"));
  EXPECT_EQ(doc.TakeChanges().elements.at("Box").checked, true);
}

TEST_F(DocumentTest, SliderRangeStepsAndTicksAreSentOnceAndBeforeNothingElse) {
  doc.SetSliderRange("S", 0, 1000);
  doc.SetSliderSteps("S", 1, 16);
  doc.SetSliderTicks("S", 62);
  doc.SetSliderPosition("S", 250);
  const ElementState s = doc.TakeChanges().elements.at("S");
  EXPECT_EQ(s.min, 0);
  EXPECT_EQ(s.max, 1000);
  EXPECT_EQ(s.lineStep, 1);
  EXPECT_EQ(s.pageStep, 16);
  EXPECT_EQ(s.tickSpacing, 62);
  EXPECT_EQ(s.value, "250");

  doc.SetSliderRange("S", 0, 2000);
  const ElementState again = doc.TakeChanges().elements.at("S");
  EXPECT_EQ(again.max, 2000);
  EXPECT_FALSE(again.min);
  EXPECT_FALSE(again.value);
}

TEST_F(DocumentTest, ScrollStateIsUnknownUntilABrowserReportsIt) {
  EXPECT_FALSE(doc.Scroll("Log"));
  doc.TakeScrollReport("Log", {900, 500, 400});
  const auto s = doc.Scroll("Log");
  ASSERT_TRUE(s);
  EXPECT_EQ(s->scrollHeight, 900);
  EXPECT_EQ(s->scrollTop, 500);
  EXPECT_EQ(s->clientHeight, 400);
  EXPECT_FALSE(doc.Dirty()) << "a report is not a change to send";
}

}  // namespace
}  // namespace ui
