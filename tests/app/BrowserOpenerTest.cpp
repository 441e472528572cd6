// The page that opens the window: readable by this user only, in a folder of its own, and the
// only thing the opener's command line names.
#include "app/BrowserOpener.h"

#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "tests/support/TempDirs.h"

namespace {

const std::string kUrl = "http://127.0.0.1:7570/?token=5f0c9a1b";

TEST(BrowserOpenerTest, ThePageIsPrivateAndTheCommandLineDoesNotCarryTheToken) {
  testing_support::ScratchDir base;
  std::string folder;
  {
    const BrowserOpener opener(kUrl, base.Path());
    ASSERT_FALSE(opener.Path().empty());
    const std::filesystem::path page(opener.Path());
    folder = page.parent_path().string();
    EXPECT_EQ(page.parent_path().parent_path().string(), base.Path());

    struct stat pageInfo {};
    struct stat folderInfo {};
    ASSERT_EQ(::lstat(page.c_str(), &pageInfo), 0);
    ASSERT_EQ(::lstat(folder.c_str(), &folderInfo), 0);
    EXPECT_TRUE(S_ISREG(pageInfo.st_mode));
    EXPECT_EQ(pageInfo.st_mode & 07777, 0600u);
    EXPECT_EQ(pageInfo.st_uid, ::geteuid());
    EXPECT_TRUE(S_ISDIR(folderInfo.st_mode));
    EXPECT_EQ(folderInfo.st_mode & 07777, 0700u);

    std::ifstream in(page);
    std::stringstream text;
    text << in.rdbuf();
    EXPECT_NE(text.str().find("http-equiv=\"refresh\" content=\"0;url=" + kUrl + "\""),
              std::string::npos);

    const auto command = opener.Command();
    ASSERT_EQ(command.size(), 2u);
    EXPECT_EQ(command[0], "xdg-open");
    EXPECT_EQ(command[1], opener.Path());
    for (const std::string& arg : command)
      EXPECT_EQ(arg.find("5f0c9a1b"), std::string::npos) << arg;
  }
  EXPECT_FALSE(std::filesystem::exists(folder)) << "the page goes with the run";
}

TEST(BrowserOpenerTest, WithoutAWritableFolderThereIsNothingToOpen) {
  const BrowserOpener opener(kUrl, "/nonexistent/tavro");
  EXPECT_TRUE(opener.Path().empty());
  EXPECT_TRUE(opener.Command().empty());
}

}  // namespace
