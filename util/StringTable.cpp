#include "util/StringTable.h"

#include <map>

namespace strings {

namespace {

// The table holds the texts the program shows by id. The link's message ids (19905 to 19913)
// belong to a translated table this build does not carry, so their lookups fall back.
const std::map<unsigned, std::string>& Table() {
  static const std::map<unsigned, std::string> table = {
      {101, "&About TavroTest..."},
      // Lead-ins of the file access warning, one for each way an open can fail, and its button.
      {19092, "Could not open for reading: "},
      {19093, "Could not open for writing (the file can be read): "},
      {19094, "Could not open for writing or reading: "},
      // The motion tests' texts (motion/TestTexts.h holds the same as fallbacks).
      {20101, "Position will begin moving in the NEGATIVE direction. "},
      {20102,
       "Movement should automatically stop after 10-15mm (make sure \r\nthere is enough room to "
       "travel that distance), but you can click \r\nthe STOP button or press the Escape key at "
       "anytime to manually \r\nstop the movement. "},
      {20103,
       "Run the test using the Standard Voltage Limit before trying it \r\nwith the higher "
       "voltages. \r\n\r\nClose Mirava before beginning the test. \r\n\r\nClick OK to begin the "
       "test."},
      {20104,
       "Machine will move to to Negative limit, then to the \r\nPositive limit, then back to the "
       "center of travel. You can \r\nclick the STOP button or press the Escape key at any "
       "\r\ntime to manually stop the movement. "},
      {20105,
       "Position the axis in the center of it travel limits and make \r\nsure there are no "
       "obstructions for the stage to travel to \r\nthe end of its limits."},
      {20106,
       "Run the test using the Standard Voltage Limit before trying it \r\nwith the higher "
       "voltages. \r\n\r\nClose Mirava then click OK to begin the test."},
      {20107,
       "Zoom will begin moving in the NEGATIVE (lower magnification) \r\ndirection. \r\n\nMovement "
       "should automatically stop after about 3000-4000 \r\nencoder counts, but you can click the "
       "STOP button or press \r\nthe Escape key at anytime to manually stop the movement. "},
      {20108,
       "Run the test using the Standard Voltage Limit before trying it \r\nwith the higher "
       "voltages. \r\n\r\nUse the camera window in Mirava to monitor the Zoom lens. \r\n\nClick OK "
       "to begin the test."},
      {20110, " axis position moved "},
      {20111, "VOLTAGE LIMIT REACHED\r\n"},
      {20112,
       "Before continuing, make sure that there is nothing obstructing \r\n the movement of the "
       "machine and that the axis is not at the \r\ntravel limit."},
      {20113, "\nLinear Encoder Initial Position: "},
      {20114, "\nLinear Encoder Final Position: "},
      {20115, "\nRotary Encoder Initial Position: "},
      {20116, "\nRotary Encoder Final Position: "},
      {20117, "\n\nDid the machine move correctly?"},
      {20118, "\n\nDid the machine move in the correct DIRECTION?"},
      {20119, "\n\nDid the machine move the correct DISTANCE?"},
      {20120,
       "Position will begin moving in the POSITIVE direction. \r\n\nMovement should automatically "
       "stop after 10-15mm (make sure there \r\nis enough room to travel that distance), but you "
       "can manually stop\r\nthe movement anytime by clicking the STOP button or pressing the "
       "Escape key. \r\n\nClick OK to begin the test."},
      {20121, "Test finished."},
      {20122, " encoder counts (no counts per mm in the machine image).\n"},
      {20130,
       "Encoder registered zoom position movement in  \r\nthe POSITIVE (higher magnification) "
       "direction.\n\nDid the machine move in the correct direction? "},
      {20131, "Encoder registered NO zoom lens movement.\n\nDid the zoom lens remain still? "},
      {20132,
       "Encoder registered zoom position movement in \r\nthe NEGATIVE (lower magnification) "
       "direction.\n\nDid the machine move in the correct direction? "},
      {20133,
       "Zoom will begin moving in the POSITIVE (higher magnification) direction. \r\n\nMovement "
       "should automatically stop after about 3000-4000 encoder counts, \r\nbut you can manually "
       "stop the movement anytime by clicking the STOP button or pressing \r\nthe Escape key. "
       "\r\n\nClick OK to continue the test. "},
      {20140,
       "Make sure nothing is obstructing the movement of the machine \r\nbefore running the test "
       "with a higher voltage limit."},
      {20141, " Axis Limits\r\n"},
      {20150, "Platen is not connected to the machine."},
      {20151, "Make sure the platen is clear of obstruction, then click OK to open the platen."},
      {20152, "Make sure the platen is clear of obstruction, then click OK to close the platen."},
      {20153, " The Platen test will run "},
      {20154,
       " times. \r\n\r\nYou can click the STOP button or push the Escape key \r\nat any time to "
       "stop the test after the current move finishes. \r\n\r\nMake sure the platen is free of "
       "obstruction, then click OK to begin."},
      {20155, "Platen test canceled"},
      {20156, "Opening"},
      {20157, "Closing"},
      {20160, "Platen test manually stopped in the middle of cycle "},
      {20161, "Platen test completed cycle "},
      {20162, "Platen test manually stopped after cycle "},
      {20163, "Platen test failed after cycle "},
      {20164, "Platen test failed in the middle of cycle "},
      {20165, "See latest \"PlatenTest_[i].dat\" file for complete test results."},
      {20166, "Test Qty must be a whole number from 1 to "},
      {20167, ".\r\n\r\nThe Platen test was not started."},
      {20170, "The test report could not be written to "},
      {36301, "OK"},
  };
  return table;
}

}  // namespace

std::string Load(unsigned id) {
  const auto it = Table().find(id);
  return it == Table().end() ? std::string() : it->second;
}

std::string LoadOr(unsigned id, const char* fallback) {
  std::string s = Load(id);
  return s.empty() ? std::string(fallback) : s;
}

}  // namespace strings
