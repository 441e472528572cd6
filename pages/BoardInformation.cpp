#include "pages/BoardInformation.h"

#include "util/Text.h"

template <class Base, const BoardInformationForm& kForm>
void BoardInformationPage<Base, kForm>::ResetPage(const BoardVersionInfo& record) {
  this->Connected = true;
  this->versionInfo = record;
  firmwareVersion = record.firmwareVersion;
  firmwareNameText = record.firmwareName;
  boardRevision = static_cast<std::int16_t>(record.boardRevision);
  pmd = {};

  // The identity comes first; its texts are taken even from a failed read (the record then
  // holds what it held).
  if (!this->controller->ReadBoardIdentity(identity)) this->Connected = false;
  serialText = identity.serialNumber;
  machineText = identity.machineName;
  modelText = identity.modelName;

  if (this->Connected) ReadChips();
  ReadFpga();

  // The EEPROM sizes last, and only when nothing failed before.
  if (!this->Connected || !this->controller->ReadEepromInfo(eeprom)) {
    eeprom = {};
    this->Connected = false;
  }
  if (this->PageReady) this->UpdateData();
}

template <class Base, const BoardInformationForm& kForm>
void BoardInformationPage<Base, kForm>::ReadChips() {
  if constexpr (kForm.chips > 0) {
    for (unsigned chip = 0; chip < kForm.chips; ++chip) {
      if (!this->controller->GetPmdVersion(pmd[chip], chip)) {
        this->Connected = false;
        return;
      }
      const PmdVersion& v = pmd[chip];
      if (v.family != 0) {
        chipName[chip] =
            text::Format("MC%u%u%u0", unsigned{v.family}, unsigned{v.motor}, unsigned{v.axes});
        chipVersion[chip] = text::Format("%u.%u", unsigned{v.major}, unsigned{v.minor});
      } else {
        // No chip there: the name says so, and the version keeps what it showed.
        chipName[chip] = "N/A";
      }
    }
  }
}

template <class Base, const BoardInformationForm& kForm>
void BoardInformationPage<Base, kForm>::ReadFpga() {
  if constexpr (kForm.hasFpga) {
    fpgaWord = 0;
    if (this->Connected || kForm.fpgaAfterFailure) {
      if (!this->controller->GetFpgaVersion(fpgaWord)) {
        fpgaWord = 0;
        this->Connected = false;
      }
    }
    fpgaText = fpgaWord != 0 ? text::Format("%u", unsigned{fpgaWord}) : "N/A";
  }
}

template <class Base, const BoardInformationForm& kForm>
void BoardInformationPage<Base, kForm>::DoDataExchange(DataExchange& dx) {
  dx.Text("FirmwareVersion", firmwareVersion);
  dx.Text("FirmwareName", firmwareNameText);
  dx.Text("BoardRevision", boardRevision);
  if constexpr (kForm.hasFpga) dx.Text("FPGAVersion", fpgaText);
  for (unsigned chip = 0; chip < kForm.chips; ++chip) {
    dx.Text(IndexedId("PMDName", chip, true), chipName[chip]);
    // A chip that is not there leaves its other elements as they were: a chip that vanished
    // after a reconnection keeps its old numbers beside "N/A".
    const PmdVersion& v = pmd[chip];
    if (v.family == 0) continue;
    dx.Text(IndexedId("PMDFamily", chip, true), static_cast<std::int16_t>(v.family));
    dx.Text(IndexedId("PMDMotor", chip, true), static_cast<std::int16_t>(v.motor));
    dx.Text(IndexedId("PMDAxes", chip, true), static_cast<std::int16_t>(v.axes));
    dx.Text(IndexedId("PMDAttributes", chip, true), static_cast<std::int16_t>(v.attributes));
    dx.Text(IndexedId("PMDCustomer", chip, true), static_cast<std::int16_t>(v.customer));
    dx.Text(IndexedId("PMDVersion", chip, true), chipVersion[chip]);
  }
  dx.Text("EEPROMUser", eeprom.userSize);
  dx.Text("EEPROMMachine", eeprom.machineSize);
  dx.Text("EEPROMUpdate", eeprom.updateSize);
  dx.Text("EEPROMPage", eeprom.pageSize);
  dx.Text("EEPROMMaxRW", eeprom.maxReadWrite);
  dx.Check("EEPROMCopy", eeprom.hasCopy);
  dx.Text("SerialNumber", serialText);
  dx.Text("MachineName", machineText);
  dx.Text("ModelName", modelText);
}

template class BoardInformationPage<CTabDlg, kAutoVisionBoardInformation>;
template class BoardInformationPage<CTabDlg, kV1BoardInformation>;
template class BoardInformationPage<CTabManualVisionDlg, kManualVisionBoardInformation>;
