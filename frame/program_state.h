// The program state: every item that more than one handler uses, under the
// names the rest of the program knows them by. One instance lives from start
// to exit inside the main window; nothing is saved between runs.
//
// Items are plain members with their fixed types: 16-bit items are int16_t,
// tables are std::array with their full index range (index 0 included, also
// where it is never filled), so an index from the design is used as it is.
#ifndef KOVRAN_FRAME_PROGRAM_STATE_H_
#define KOVRAN_FRAME_PROGRAM_STATE_H_

#include <array>
#include <cstdint>
#include <string>

namespace frame {

// Elements 1..8 of the SETTINGS table; entries 0 and 9..20 are never filled.
enum SettingIndex : int {
  HOST = 1,
  POLLINGTIME = 2,
  STARTUP = 3,
  CONNECTION = 4,
  BACKUPTIME = 5,
  LOWTIME = 6,
  ENABLESHUT = 7,
  PCPOWEROFF = 8,
};

// Fields 1..5 of a UPSTYPES row.
enum UpsTypeField : int {
  NAME = 1,
  SYSOBJE = 2,
  BATSTAT = 3,
  TIME = 4,
  SHORT = 5,
};

inline constexpr int kUpsTypeRows = 11;    // rows 0..10
inline constexpr int kUpsTypeFields = 11;  // fields 0..10
inline constexpr int kBatteryCodes = 6;    // entries 0..5
inline constexpr int16_t kEmptyBatteryCode = 100;
inline constexpr int kMessageCount = 201;  // messages 0..200

// What a reading of the settings file writes. A reading overwrites the keys
// the file contains and keeps the others; only the type table is reset.
struct SettingsItems {
  int16_t LOCALWINDOWPORT = 0;
  int16_t CLIENTPORT = 0;
  int16_t MAXLOCALUSERS = 0;
  std::string LANGUAGE;
  int16_t AGENTNO = 0;
  std::array<std::string, 21> SETTINGS;
  std::array<std::array<std::string, kUpsTypeFields>, kUpsTypeRows> UPSTYPES;
  std::array<std::array<int16_t, kBatteryCodes>, kUpsTypeRows> BTNORMAL{};
  std::array<std::array<int16_t, kBatteryCodes>, kUpsTypeRows> BTLOW{};
};

struct ProgramState : SettingsItems {
  // Messages, log and start.
  std::array<std::string, kMessageCount> MESSAGES;
  std::string LOGLINE;
  int32_t STARTTIME = 0;

  // Local windows and the local control port.
  std::array<std::string, 4> WINDOWMSGS;
  std::string WINDOWMSG;
  int16_t ENDREQUEST = 0;
  int16_t STOPPED = 0;
  int16_t DISCOVERREQUEST = 0;
  int16_t CONTROLSLOT = 0;

  // Server link and the texts shown to local windows.
  int16_t LINKSTATE = 0;
  std::string REQUESTCODE;
  std::string REQUESTLINE;
  std::string REPLYTEXT;
  std::string LASTHEADER;
  int16_t COMMOK = 0;
  int16_t DELAYSECONDS = 0;
  std::string STATUSTEXT;
  std::string DETAILTEXT;
  std::string ALARMTEXT;

  // SNMP agent link.
  std::array<std::string, 6> SNMPVALUES;
  int16_t POLLPHASE = 0;
  int16_t DISCOVERACTIVE = 0;  // True is -1, False 0
  int16_t AGENTTYPE = 0;

  // Power watch and shutdown.
  std::string EMERGENCYTEXT;
  int16_t SHUTDOWNFLAG = 0;
  int16_t EXITCOUNT = 0;
  int16_t ONBATTERY = 0;
  int16_t BATTERYLOW = 0;
  std::string LASTSNMPTEXT;

  // Message n of the language file; the empty text for a number the file
  // lacks or one outside the table.
  const std::string& Message(int n) const {
    static const std::string kNone;
    return n >= 0 && n < kMessageCount ? MESSAGES[n] : kNone;
  }
};

}  // namespace frame

#endif  // KOVRAN_FRAME_PROGRAM_STATE_H_
