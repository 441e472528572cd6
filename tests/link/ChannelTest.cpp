// The driver channel against a hand-scripted board: discovery, open results, the retry table,
// the exact-size and refusal checks, limits, time-outs and what the user and the log see.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <thread>

#include "link/CTavroUsb.h"
#include "link/LinkMessages.h"
#include "platform/Clock.h"
#include "tests/support/Recorders.h"
#include "tests/support/ScriptedBoard.h"

namespace {

using namespace testing_support;
using platform::Milliseconds;
using Bytes = std::vector<std::uint8_t>;

class ChannelTest : public LinkFixture {
 protected:
  // Opens a board at class 1 index 0 whose every command gets `answer`.
  std::unique_ptr<ScriptedBoard> OpenWith(CTavroUsb& usb, BoardAnswer answer) {
    auto board = std::make_unique<ScriptedBoard>(dir.Class1(0));
    board->SetHandler([answer](const BoardRequest&) { return answer; });
    EXPECT_EQ(usb.Open(true, true), 0);
    return board;
  }
};

TEST_F(ChannelTest, DiscoveryPrefersClassOneThenClassTwoThenNames) {
  std::filesystem::create_directories(dir.Path() + "/" + platform::kInterfaceClass2);
  std::ofstream(dir.Class2(0)) << "an entry that is not a socket is passed over";
  ScriptedBoard named(dir.Name("HnUsbb3"));
  {
    CTavroUsb usb;
    ASSERT_EQ(usb.Open(true, true), 0) << "a device with no interface is found by its name";
    EXPECT_EQ(named.Requests().size(), 1u);
  }
  ScriptedBoard second(dir.Class2(1), 0x11);
  ScriptedBoard first(dir.Class1(2), 0x22);
  {
    CTavroUsb usb;
    // Class 1 has no index 0, which ends that class: index 2 is never reached.
    ASSERT_EQ(usb.Open(true, true), 0);
    EXPECT_EQ(usb.DriverWord(), 0x11u);
  }
  ScriptedBoard firstAtZero(dir.Class1(0), 0x33);
  CTavroUsb usb;
  ASSERT_EQ(usb.Open(true, true), 0);
  EXPECT_EQ(usb.DriverWord(), 0x33u);
  EXPECT_TRUE(boxes.Boxes().empty());
}

TEST_F(ChannelTest, AFailedOpenIsShownOnceAndRetriedOnlySilently) {
  CTavroUsb usb;
  EXPECT_EQ(usb.Open(true, true), 1);
  ASSERT_EQ(boxes.Boxes().size(), 1u);
  EXPECT_EQ(boxes.Boxes()[0].text,
            usb::GeneralUsbErrorText() + "\nError: Couldn't open \\\\.\\HnUsb, (2)\r\n");
  EXPECT_EQ(boxes.Boxes()[0].title, "Error");
  EXPECT_EQ(boxes.Boxes()[0].style, 0x10u);

  ScriptedBoard board(dir.Class1(0));
  EXPECT_EQ(usb.Open(true, true), 3) << "a shown failure is not tried again";
  EXPECT_TRUE(board.Requests().empty());
  EXPECT_EQ(usb.Open(false, true), 0) << "a silent open searches again";
  EXPECT_TRUE(usb.IsOpen());
  EXPECT_EQ(boxes.Boxes().size(), 1u);
}

// The simulator's fault run covers a plain two-byte refusal; this one is of the wrong size (still
// a refusal) and carries a negative reason.
TEST_F(ChannelTest, RefusalsAreTriedThreeTimesThenReportedWithTheReason) {
  CTavroUsb usb;
  auto board = OpenWith(usb, {.bytes = {0x3F, 0xFB, 0, 0}});
  std::uint8_t reply[4];
  const std::uint8_t request[] = {'+'};
  EXPECT_FALSE(usb.SendNormalCommand(request, 1, reply, 4));
  EXPECT_EQ(board->Commands().size(), 3u);
  EXPECT_FALSE(usb.IsOpen());
  EXPECT_EQ(log.Messages().back(),
            "DeviceIoControl(0x80002000,5000)[3/3]: USB Error 13 - NAK_PACKET (4 63)\r\n");
  EXPECT_NE(log.Entries().back().find("CTavroUsb.cpp("), std::string::npos);
  ASSERT_EQ(boxes.Boxes().size(), 1u);
  EXPECT_EQ(boxes.Boxes()[0].text,
            usb::GeneralUsbErrorText() +
                "\nError: IOCTL_TAVROUSB_SEND_NORMAL_COMMAND returned code: +, -5\r\n");

  // Once the link is lost every call fails at once without reaching the board.
  board->ClearRequests();
  EXPECT_FALSE(usb.SendNormalCommand(request, 1, reply, 4));
  EXPECT_TRUE(board->Commands().empty());
}

TEST_F(ChannelTest, RepliesOfAnotherSizeFailAfterThreeAttemptsUnlessNoReplyIsWanted) {
  Bytes longReply(140);
  for (std::size_t i = 0; i < longReply.size(); ++i)
    longReply[i] = static_cast<std::uint8_t>(i + 1);
  CTavroUsb usb;
  auto board = OpenWith(usb, {});
  board->SetHandler([&](const BoardRequest& r) {
    return BoardAnswer{.bytes = r.bytes.at(0) == 'U' ? Bytes{1, 2, 3} : longReply};
  });
  std::uint8_t reply[130];
  const std::uint8_t shortRequest[] = {'U', 0, 1};
  EXPECT_TRUE(usb.SendNormalCommand(shortRequest, 3, nullptr, 0));
  EXPECT_FALSE(usb.SendNormalCommand(shortRequest, 3, reply, 4));
  EXPECT_EQ(log.Messages().at(0),
            "DeviceIoControl(0x80002000,5000)[3/3]: USB Error 13 - lpBytesReturned != "
            "nOutBufferSize (3 4), lpBytesReturned = 01 02 03\r\n");

  ASSERT_EQ(usb.Open(false, true), 0);
  board->ClearRequests();
  const std::uint8_t request[] = {'`'};
  EXPECT_FALSE(usb.SendNormalCommand(request, 1, reply, 130));
  EXPECT_EQ(board->Commands().size(), 3u);
  const std::string message = log.Messages().at(1);
  EXPECT_EQ(message.rfind("DeviceIoControl(0x80002000,5000)[3/3]: USB Error 13 - lpBytesReturned "
                          "!= nOutBufferSize (140 130), lpBytesReturned = 01 02",
                          0),
            0u);
  EXPECT_NE(message.find(" 0F 10  11 12"), std::string::npos) << "a blank between groups of 16";
  EXPECT_NE(message.find(" 80  ...\r\n"), std::string::npos) << "128 bytes at most, then ...";
  EXPECT_EQ(message.find(" 81"), std::string::npos);
  EXPECT_EQ(boxes.Boxes().back().text,
            usb::GeneralUsbErrorText() +
                "\nError: IOCTL_TAVROUSB_SEND_NORMAL_COMMAND returned wrong size packet: `, "
                "130, 140\r\n");
}

TEST_F(ChannelTest, LengthLimitsAreInclusiveAndAnOversizeCallLeavesTheLinkOpen) {
  CTavroUsb usb;
  auto board = std::make_unique<ScriptedBoard>(dir.Class1(0));  // answers every size asked
  ASSERT_EQ(usb.Open(true, true), 0);
  std::vector<std::uint8_t> big(1100, 0x41);
  std::vector<std::uint8_t> reply(1100);
  EXPECT_TRUE(usb.SendNormalCommand(big.data(), 300, reply.data(), 300));
  EXPECT_FALSE(usb.SendNormalCommand(big.data(), 301, reply.data(), 2));
  EXPECT_FALSE(usb.SendNormalCommand(big.data(), 1, reply.data(), 301));
  EXPECT_TRUE(usb.GetCapturePosition(big.data(), 1022, reply.data(), 1022));
  EXPECT_FALSE(usb.GetCapturePosition(big.data(), 1, reply.data(), 1023));
  EXPECT_TRUE(usb.IsOpen());
  const auto commands = board->Commands();
  ASSERT_EQ(commands.size(), 2u);
  EXPECT_EQ(commands[0].bytes.size(), 300u);
  EXPECT_EQ(commands[1].code, usb::kGetCapturePositionCode);
  EXPECT_EQ(commands[1].bytes.size(), 1022u);
  EXPECT_TRUE(boxes.Boxes().empty());
}

TEST_F(ChannelTest, DriverErrorsFollowTheRetryTableAndTheLinkCanBeReopened) {
  struct Case {
    BoardAnswer answer;
    std::uint32_t error;
    std::size_t attempts;
    const char* name;
    std::int64_t waitedMs;
  };
  // A missing reply is cancelled after the full wait and not tried again; a board that dies
  // mid-transfer is a file-not-found.
  for (const Case& c :
       {Case{{.status = 23}, 23, 3, "ERROR_CRC", 0},
        Case{{.status = 121}, 121, 3, "ERROR_SEM_TIMEOUT", 0},
        Case{{.status = 183}, 183, 3, "ERROR_ALREADY_EXISTS", 0},
        Case{{.status = 2}, 2, 1, "ERROR_FILE_NOT_FOUND", 0},
        Case{{.status = 6}, 6, 1, "ERROR_INVALID_HANDLE", 0},
        Case{{.status = 995}, 995, 1, "ERROR_OPERATION_ABORTED", 0},
        Case{{.status = 31}, 31, 1, "", 0}, Case{{.noReply = true}, 997, 1, "", 5000},
        Case{{.hangUp = true}, 2, 1, "ERROR_FILE_NOT_FOUND", 0}}) {
    SCOPED_TRACE(c.error);
    CTavroUsb usb;
    auto board = OpenWith(usb, c.answer);
    std::uint8_t reply[2];
    const std::uint8_t request[] = {'Z'};
    const auto before = ElapsedMs();
    EXPECT_FALSE(usb.SendNormalCommand(request, 1, reply, 2));
    EXPECT_EQ(ElapsedMs() - before, c.waitedMs);
    EXPECT_EQ(board->Commands().size(), c.attempts);
    EXPECT_FALSE(usb.IsOpen());
    EXPECT_EQ(log.Messages().back(), "DeviceIoControl(0x80002000,5000)[" +
                                         std::to_string(c.attempts) + "/3]: USB Error " +
                                         std::to_string(c.error) + " - " + c.name + "\r\n");
    EXPECT_EQ(boxes.Boxes().back().text, usb::FailedText("IOCTL_TAVROUSB_SEND_NORMAL_COMMAND", 'Z',
                                                         usb::SystemErrorText(c.error)));

    board->SetHandler([](const BoardRequest& r) {
      return BoardAnswer{.bytes = std::vector<std::uint8_t>(r.replyLength, 7)};
    });
    EXPECT_EQ(usb.Open(false, true), 0);
    EXPECT_TRUE(usb.SendNormalCommand(request, 1, reply, 2));
    EXPECT_EQ(reply[1], 7);
  }
}

TEST_F(ChannelTest, ASocketThatAcceptsAndClosesOpensWithoutADriverWordAndThenFails) {
  const std::string path = dir.Class1(0);
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  const int listener = ::socket(AF_UNIX, SOCK_SEQPACKET, 0);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::strncpy(addr.sun_path, path.c_str(), sizeof addr.sun_path - 1);
  ASSERT_EQ(::bind(listener, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
  ASSERT_EQ(::listen(listener, 4), 0);
  std::thread closer = platform::ParticipantThread([&] {
    clock.WaitReadable(listener, platform::kNever);
    ::close(::accept(listener, nullptr, nullptr));
  });
  CTavroUsb usb;
  EXPECT_EQ(usb.Open(true, true), 0);
  EXPECT_EQ(usb.DriverWord(), 0u);
  platform::Join(closer);
  // The after-open failure does not count as a lost link; the version query finds it dead.
  EXPECT_EQ(usb.Open(true, false), 2);
  ::close(listener);
  ASSERT_EQ(boxes.Boxes().size(), 2u);
  EXPECT_NE(boxes.Boxes()[0].text.find("IOCTL_TAVROUSB_SEND_NORMAL_COMMAND failed: +, "),
            std::string::npos);
  EXPECT_EQ(boxes.Boxes()[1].text, usb::NoVersionInformationText());
  EXPECT_FALSE(usb.IsOpen());
}

TEST_F(ChannelTest, NormalAndCaptureTransfersOverlap) {
  CTavroUsb usb;
  ScriptedBoard board(dir.Class1(0));
  std::mutex m;
  bool captureSeen = false;
  board.SetHandler([&](const BoardRequest& r) {
    // The capture request arrives while the normal command still waits for its reply.
    if (r.code == usb::kGetCapturePositionCode) {
      std::lock_guard lock(m);
      captureSeen = true;
      return BoardAnswer{.bytes = std::vector<std::uint8_t>(r.replyLength, 2)};
    }
    return BoardAnswer{.noReply = true};
  });
  ASSERT_EQ(usb.Open(false, true), 0);
  usb.SetReportErrors(false);
  std::thread normal = platform::ParticipantThread([&] {
    std::uint8_t reply[4];
    const std::uint8_t request[] = {'+'};
    EXPECT_FALSE(usb.SendNormalCommand(request, 1, reply, 4));
  });
  clock.SleepFor(Milliseconds(100));
  std::uint8_t reply[8];
  const std::uint8_t request[] = {'c'};
  EXPECT_TRUE(usb.GetCapturePosition(request, 1, reply, 8));
  EXPECT_LT(ElapsedMs(), 5000);
  platform::Join(normal);
  EXPECT_TRUE(boxes.Boxes().empty()) << "no dialog once errors are not reported";
  std::lock_guard lock(m);
  EXPECT_TRUE(captureSeen);
}

// The describe request is the driver's own: whatever it answers, the link stays as it was, and
// only a short printable text counts as a description.
TEST_F(ChannelTest, DescribeTakesOnlyAShortPrintableTextAndNeverTouchesTheLink) {
  const auto text = [](const std::string& t) {
    return std::vector<std::uint8_t>(t.begin(), t.end());
  };
  struct Case {
    const char* name;
    BoardAnswer answer;
    bool described;
  };
  const std::string longest(usb::kDescribeLimit, 'a');
  const Case cases[] = {
      {"simulated", {.bytes = text("simulated servo")}, true},
      {"at the limit", {.bytes = text(longest)}, true},
      {"an older driver's refusal", {.status = 1}, false},
      {"an empty text", {}, false},
      {"a control character", {.bytes = text("simulated \x1b[31mservo")}, false},
      {"a line break", {.bytes = text("simulated\nservo")}, false},
      {"beyond the limit", {.bytes = text(longest + "b")}, false},
      {"a byte above ASCII", {.bytes = {'s', 0xC3, 0xA4}}, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    CTavroUsb usb;
    auto board = OpenWith(usb, c.answer);
    usb.SetReportErrors(false);
    std::string out = "unchanged";
    EXPECT_EQ(usb.Describe(out), c.described);
    EXPECT_EQ(
        out, c.described ? std::string(c.answer.bytes.begin(), c.answer.bytes.end()) : "unchanged");
    const std::vector<BoardRequest> sent = board->Commands();
    ASSERT_EQ(sent.size(), 1u) << "one try, whatever the answer";
    EXPECT_EQ(sent[0].code, usb::kDescribeCode);
    EXPECT_EQ(sent[0].replyLength, usb::kDescribeLimit);
    EXPECT_TRUE(sent[0].bytes.empty());
    EXPECT_TRUE(usb.IsOpen()) << "a describe answer never ends the link";
    EXPECT_NE(usb.LinkSession(), 0u);
  }
  EXPECT_TRUE(boxes.Boxes().empty());
}

TEST_F(ChannelTest, DescribeWithoutALinkSendsNothing) {
  ScriptedBoard board(dir.Class1(0));
  CTavroUsb usb;
  std::string out;
  EXPECT_FALSE(usb.Describe(out));
  ASSERT_EQ(usb.Open(false, true), 0);
  usb.Close();
  EXPECT_FALSE(usb.Describe(out));
  EXPECT_TRUE(board.Commands().empty());
}

}  // namespace
