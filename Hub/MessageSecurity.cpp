#include "Hub/MessageSecurity.h"

#include <fstream>
#include <iostream>
#include <sstream>

namespace {

// The level granted by this version's policy to every device for every object.
const unsigned char FixedAccessLevel = 2;

}  // namespace

MessageSecurityMgr::MessageSecurityMgr(ClientsDatabase* database) : db(database) {}

bool MessageSecurityMgr::loadSecurityRules(const std::string& name) {
    fileName = name;
    std::ifstream in(name);
    if (!in) return false;
    std::string line;
    while (std::getline(in, line)) applyRuleLine(line);
    return true;
}

void MessageSecurityMgr::applyRuleLine(const std::string& line) {
    std::istringstream fields(line);
    char kind = 0;
    int level = 0;
    std::string first, second;
    fields >> kind >> level >> first >> second;
    if (level <= 0 || level >= 4 || first.size() <= 2 || second.size() <= 2) return;
    if (db == nullptr) return;
    const DeviceID a = db->objectIdFor(first);
    const DeviceID b = db->objectIdFor(second);
    if (a == 0 || b == 0) return;
    const std::pair<DeviceID, DeviceID> key(a, b);
    if (kind == 'D')
        direct[key] = static_cast<uint8_t>(level);
    else if (kind == 'N')
        notifi[key] = static_cast<uint8_t>(level);
    else
        std::cerr << "Invalid record: " << line << '\n';
}

unsigned char MessageSecurityMgr::accessRightsForMessage(const MsgSelector& /*sel*/,
                                                         unsigned char /*trust*/) {
    return FixedAccessLevel;
}

unsigned char MessageSecurityMgr::accessRightsForNotiSubscription(unsigned short /*nodeId*/,
                                                                  unsigned char /*objectNo*/,
                                                                  unsigned short /*eventId*/,
                                                                  unsigned short /*devId*/,
                                                                  unsigned char /*trust*/) {
    return FixedAccessLevel;
}
