// Message security rules: how many access rights one device holds towards
// another's objects, for direct messages and for notification subscriptions.
//
// Rules are read from a text file of lines "<D|N> <level 1-3> <duid> <duid>" and
// held by node id, resolved through the client database (which must already
// know both devices). Levels are unsigned 8-bit; a request passes when the level
// granted is at least the level required. In this version both queries grant
// level 2 to everyone and do not consult the rules. Main thread only.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <utility>

#include "Hub/Database/ClientsDB.h"

class MsgSelector;

class MessageSecurityMgr {
public:
    typedef std::map<std::pair<DeviceID, DeviceID>, uint8_t> RuleMap;

    // Empty name and maps. DUIDs are resolved through `db` (by default the
    // hub's clientsDb); the database must outlive this object.
    explicit MessageSecurityMgr(ClientsDatabase* db = &clientsDb);

    // Remembers fileName and adds its rules to those already held (a later rule
    // for the same pair wins). False, with nothing changed, only when the file
    // cannot be opened; true otherwise. Malformed lines and lines naming unknown
    // devices are skipped silently; a well-formed line of another kind than D or
    // N prints "Invalid record: " and the line on standard error.
    bool loadSecurityRules(const std::string& fileName);

    // The level granted to a sender of the message `sel` addresses: 2 always.
    unsigned char accessRightsForMessage(const MsgSelector& sel, unsigned char trust);
    // The level granted to devId for subscribing to event eventId of object
    // objectNo of node nodeId: 2 always.
    unsigned char accessRightsForNotiSubscription(unsigned short nodeId, unsigned char objectNo,
                                                  unsigned short eventId, unsigned short devId,
                                                  unsigned char trust);

    // The rules file last given to loadSecurityRules ("" before).
    const std::string& rulesFile() const { return fileName; }
    // The loaded rules, keyed by (first id, second id).
    const RuleMap& directRules() const { return direct; }
    const RuleMap& notificationRules() const { return notifi; }

private:
    std::string fileName;
    RuleMap direct;
    RuleMap notifi;
    ClientsDatabase* db;

    void applyRuleLine(const std::string& line);
};
