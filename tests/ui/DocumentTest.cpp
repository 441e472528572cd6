#include "ui/Document.h"

#include <gtest/gtest.h>

namespace ui {
namespace {

using Elements = std::map<std::string, ElementState>;

class DocumentTest : public ::testing::Test {
 protected:
  DocumentTest() {
    doc.SetObserver([this] { ++notices; });
  }
  Document doc;
  int notices = 0;
};

TEST_F(DocumentTest, ABatchCarriesOnlyThePropertiesThatDifferFromWhatWasSent) {
  doc.SetText("A", "1");
  doc.SetChecked("C", true);
  doc.Enable("B", false);
  doc.TakeChanges();
  notices = 0;

  doc.SetText("A", "1");
  doc.Enable("B", false);
  EXPECT_FALSE(doc.Dirty());
  EXPECT_EQ(notices, 0) << "the value already there";

  doc.SetText("A", "2");
  doc.SetChecked("C", true);  // unchanged
  doc.Enable("B", true);
  doc.Enable("B", false);  // changed and changed back before the batch
  doc.SetDisplay("W", "inline");
  doc.SetBackground("S", "#ff0000");
  EXPECT_EQ(notices, 1) << "one notice per turn from clean to dirty";

  EXPECT_EQ(doc.TakeChanges().elements, (Elements{{"A", {.value = "2"}},
                                                  {"S", {.background = "#ff0000"}},
                                                  {"W", {.display = "inline"}}}));
  EXPECT_FALSE(doc.Dirty());
  EXPECT_TRUE(doc.TakeChanges().Empty());
}

TEST_F(DocumentTest, TheSnapshotHoldsEverySetPropertyButNoScrollCommandAndKeepsTracking) {
  doc.SetText("A", "1");
  doc.TakeChanges();
  doc.SetText("B", "2");
  doc.PageDown("B");

  const DocumentDelta all = doc.Snapshot();
  EXPECT_EQ(all.elements, (Elements{{"A", {.value = "1"}}, {"B", {.value = "2"}}}));
  EXPECT_TRUE(all.scrolls.empty());

  // The snapshot was for one late browser; the others still get the change.
  const DocumentDelta delta = doc.TakeChanges();
  EXPECT_EQ(delta.elements, (Elements{{"B", {.value = "2"}}}));
  ASSERT_EQ(delta.scrolls.size(), 1u);
  EXPECT_EQ(delta.scrolls[0].command, ScrollCommand::kPageDown);
}

TEST_F(DocumentTest, ReadBacksGiveWhatWasReportedOrSet) {
  EXPECT_FALSE(doc.Scroll("Log")) << "unknown until a browser reports it";
  doc.TakeScrollReport("Log", {900, 500, 400});
  ASSERT_TRUE(doc.Scroll("Log"));
  EXPECT_EQ(doc.Scroll("Log")->scrollTop, 500);
  EXPECT_FALSE(doc.Dirty()) << "a report is not a change to send";

  doc.SetSliderPosition("L", -40);
  EXPECT_EQ(doc.SliderPosition("L"), -40);
  doc.SetText("L", "12a");
  EXPECT_EQ(doc.SliderPosition("L"), 0);
}

// A refused text goes back even though the value it returns to is the one sent before: the
// browser that typed it shows something else. A browser's tick goes on to the other browsers.
TEST_F(DocumentTest, BrowserValuesAreReadBackAndResent) {
  doc.SetText("Raw", "500");
  doc.SetChecked("Box", false);
  doc.TakeChanges();
  doc.TakeBrowserValue("Raw", std::string("12a"), std::nullopt);
  doc.TakeBrowserValue("Box", std::nullopt, true);
  EXPECT_EQ(doc.Text("Raw"), "12a");
  EXPECT_TRUE(doc.Checked("Box"));
  doc.SetText("Raw", "500");
  EXPECT_EQ(doc.TakeChanges().elements,
            (Elements{{"Box", {.checked = true}}, {"Raw", {.value = "500"}}}));
}

TEST_F(DocumentTest, SliderRangeStepsAndTicksAreSentOnlyWhenTheyChange) {
  doc.SetSliderRange("S", 0, 1000);
  doc.SetSliderSteps("S", 1, 16);
  doc.SetSliderTicks("S", 62);
  doc.SetSliderPosition("S", 250);
  EXPECT_EQ(doc.TakeChanges().elements.at("S").tickSpacing, 62);

  doc.SetSliderRange("S", 0, 2000);
  EXPECT_EQ(doc.TakeChanges().elements.at("S"), (ElementState{.max = 2000}));
}

}  // namespace
}  // namespace ui
