// The Board Information page, first tab of every family: what the board says about itself,
// read once at each ResetPage (start and reconnection) and static in between. No events.
//
// The three members differ only by the table BoardInformationForm: how many motion chips, whether
// there is an FPGA element, and whether the FPGA is read after an earlier read failed.
#pragma once

#include <array>
#include <cstdint>
#include <string>

#include "link/CTavroUsbManualVision.h"
#include "link/CTavroUsbServo.h"
#include "pages/CTabDlg.h"

struct BoardInformationForm {
  std::uint32_t htmlId;
  unsigned chips;         // motion chips shown: 2, 1 or 0
  bool hasFpga;           // FPGAVersion element and its read
  bool fpgaAfterFailure;  // read the FPGA even when an earlier read failed
};

inline constexpr BoardInformationForm kAutoVisionBoardInformation{
    .htmlId = 104, .chips = 2, .hasFpga = true, .fpgaAfterFailure = false};
inline constexpr BoardInformationForm kV1BoardInformation{
    .htmlId = 110, .chips = 1, .hasFpga = false, .fpgaAfterFailure = false};
inline constexpr BoardInformationForm kManualVisionBoardInformation{
    .htmlId = 113, .chips = 0, .hasFpga = true, .fpgaAfterFailure = true};

template <class Base, const BoardInformationForm& kForm>
class BoardInformationPage : public Base {
 public:
  template <class Controller>
  BoardInformationPage(Controller* owner, const BoardVersionInfo& version)
      : Base(103, kForm.htmlId, owner, version) {}

  void ResetPage(const BoardVersionInfo& record) override;

 protected:
  void DoDataExchange(DataExchange& dx) override;

 private:
  void ReadChips();
  void ReadFpga();

  float firmwareVersion = 0;
  std::string firmwareNameText;
  std::int16_t boardRevision = 0;
  std::string fpgaText;
  std::uint16_t fpgaWord = 0;
  std::array<PmdVersion, 2> pmd{};
  std::array<std::string, 2> chipName;
  std::array<std::string, 2> chipVersion;
  EepromInfo eeprom{};
  BoardIdentity identity{};
  std::string serialText;
  std::string machineText;
  std::string modelText;
};

class CTabBoardInformationDlg final
    : public BoardInformationPage<CTabDlg, kAutoVisionBoardInformation> {
 public:
  using BoardInformationPage::BoardInformationPage;
};

class CTabV1BoardInformationDlg final : public BoardInformationPage<CTabDlg, kV1BoardInformation> {
 public:
  using BoardInformationPage::BoardInformationPage;
};

class CTabManualVisionBoardInformationDlg final
    : public BoardInformationPage<CTabManualVisionDlg, kManualVisionBoardInformation> {
 public:
  using BoardInformationPage::BoardInformationPage;
};

extern template class BoardInformationPage<CTabDlg, kAutoVisionBoardInformation>;
extern template class BoardInformationPage<CTabDlg, kV1BoardInformation>;
extern template class BoardInformationPage<CTabManualVisionDlg, kManualVisionBoardInformation>;
