// The adoption and join handshake: offers, domain check, session key and its
// transport under SHA-1(clientRand, main key, svrRand).
#include "Hub/newDevice.h"

#include <cstring>
#include <iostream>
#include <string>

#include "Hub/DeviceManager.h"
#include "Hub/hub_utilities.h"
#include "Hub/server.h"
#include "Velto/Sha/sha1.h"
#include "Velto/platform.h"
#include "Velto/velto_security.h"

namespace {

constexpr size_t MIN_SESSION_KEY_SIZE = 16;   // a shorter stored session key is replaced
constexpr size_t MIN_MAIN_KEY_SIZE = 4;       // a shorter main key is replaced by 20 zero bytes
constexpr size_t CLEARED_MAIN_KEY_SIZE = 20;
constexpr size_t MIN_SIGNING_KEY_SIZE = 5;    // only keys of more than 4 bytes sign

// Lower-case hexadecimal text of n bytes ("" for none).
std::string hex(const uint8_t* data, size_t n) {
    std::string out;
    bin2hex(data, n, out);
    return out;
}

template <size_t N>
std::string hex(const ByteArray<N>& a) {
    return hex(a.data(), a.size());
}

// Keys the pack's signature with the device's main key when it can sign.
void signWithMainKey(VeltoPacket& pack, const ClientDBRec& rec) {
    if (rec.mainKey.size() >= MIN_SIGNING_KEY_SIZE)
        pack.signature.setKey(rec.signatureToUse(), rec.mainKey.data(), rec.mainKey.size());
}

void logNewBaby(const NewBornDevicePack& pack, const SockAddress& from) {
    std::cout << "New Baby born at:" << from.ipAddr() << "/" << from.port() << " DUID=" << pack.duid.c_str()
              << ", SPECS=" << pack.specs.c_str() << " VER=" << unsigned(pack.intVer) << '\n';
}

// The newcomer of this address and DUID, made when there is none and the
// device is not avoided; null when none could be had.
ClientInfo* findOrCreateNewComer(const NewBornDevicePack& pack, const SockAddress& from, Timestamp now) {
    const std::string duid = pack.duid.str();
    const std::string specs = pack.specs.str();
    ClientInfo* newcomer = clientMgr.getNewComer(from, duid);
    if (newcomer == nullptr && !clientMgr.avoidDevice(from, duid, specs, pack.intVer))
        newcomer = clientMgr.createNewComer(from, duid, specs, pack.intVer, now);
    return newcomer;
}

// A consistency warning only: the newcomer found again should be the one used.
void checkNewComerStable(const SockAddress& from, const std::string& duid, const ClientInfo* used) {
    const ClientInfo* found = clientMgr.getNewComer(from, duid);
    if (found != used)
        std::cerr << "NewCommer problem: clnt=" << static_cast<const void*>(found)
                  << " client=" << static_cast<const void*>(used) << '\n';  // kept: "NewCommer"
}

void logJoinRequest(const NetworkJoinPack& pack, const SockAddress& from, const char* prefix) {
    // kept: no blank between "network" and the domain
    std::cout << prefix << from.ipAddr() << "/" << from.port() << " DUID=" << pack.duid.c_str()
              << " joins the network" << pack.domain.c_str() << " as " << pack.nname.c_str();
}

void logAdopting(const NetworkJoinPack& pack, const SockAddress& from, DeviceID id) {
    logJoinRequest(pack, from, "Adopting client:");
    const uint8_t* a = pack.addrValue.data();
    // kept: the parenthesis is never closed
    std::cout << " clientId: " << id << " urand=" << pack.clientRand << " disclaimer:  " << unsigned(pack.addrType)
              << "(" << pack.hubPortNo << "," << unsigned(a[0]) << "." << unsigned(a[1]) << "." << unsigned(a[2])
              << "." << unsigned(a[3]) << '\n';
}

// A device without a usable main key gets 20 zero bytes as key and no trust.
// (A key of exactly 4 bytes is kept here but does not sign: the two thresholds
// differ on purpose.) True when the key changed.
bool applyMainKeyFallback(ClientDBRec& rec) {
    if (rec.mainKey.size() >= MIN_MAIN_KEY_SIZE) return false;
    const ByteArray<32> before = rec.mainKey;
    rec.trust = 0;
    rec.mainKey.setSize(CLEARED_MAIN_KEY_SIZE);
    memset(rec.mainKey.data(), 0, CLEARED_MAIN_KEY_SIZE);
    return !(before == rec.mainKey);
}

// Keeps a session key of 16 bytes or more; otherwise makes a 32-byte one.
// True when it made one (always for a device's first join).
bool ensureSessionKey(ClientDBRec& rec) {
    if (rec.sessionKey.size() >= MIN_SESSION_KEY_SIZE) return false;
    generateRandomData(rec.sessionKey, MAXIMUM_SESSION_KEY_SIZE);
    return true;
}

// The handshake's only save: a device's first record and every change of its
// keys reach the disk before the acceptance leaves, so a power cut cannot
// lose a device that was told it joined. A failed save is said (at most once
// a second) and the join goes on: the periodic flush writes it later.
void saveKeysDurably(const ClientDBRec& rec) {
    static Timestamp lastComplaint = 0;
    if (clientsDb.storeRecord(rec, true)) return;
    const Timestamp now = currentTime();
    if (now < lastComplaint + 1000) return;
    lastComplaint = now;
    std::cerr << "WARNING: the record of DUID " << rec.duid << " could not be synced to disk before its join acceptance\n";
}

// The 8 bytes of v least significant first, as the hub holds it in memory.
void littleEndianBytes(uint64_t v, uint8_t out[8]) {
    for (int i = 0; i < 8; ++i) out[i] = static_cast<uint8_t>(v >> (8 * i));
}

// SHA-1 over clientRand, the main key and svrRand: the key the session key
// travels under. Only a holder of the main key can recompute it.
void transportKey(uint64_t clientRand, const ByteArray<32>& mainKey, uint64_t svrRand, uint8_t out[20]) {
    uint8_t bytes[8];
    Sha1Class sha;
    sha.init();
    littleEndianBytes(clientRand, bytes);
    sha.write(bytes, sizeof bytes);
    sha.write(mainKey.data(), mainKey.size());
    littleEndianBytes(svrRand, bytes);
    sha.write(bytes, sizeof bytes);
    memcpy(out, sha.result(), SHA1_HASH_LENGTH);
}

// The record's session key transformed under key into the pack's sessionKey.
void encryptSessionKey(const ClientDBRec& rec, const uint8_t key[20], JoinAcceptedPack& ja) {
    uint8_t* out = ja.sessionKey.data();
    size_t outLeft = ja.sessionKey.capacity();
    encryptData(rec.sessionKey.data(), rec.sessionKey.size(), ja.encAlg, key, SHA1_HASH_LENGTH, out, outLeft);
    ja.sessionKey.setSize(ja.sessionKey.capacity() - outLeft);
}

// Key material in clear: part of the behaviour as designed.
void logKeyExchange(const NodeStatusInfo& st, const ClientDBRec& rec, const uint8_t key[20],
                    const JoinAcceptedPack& ja, const SockAddress& from) {
    std::cout << "ClientRand=" << st.clientRand << " SvrRand=" << st.svrRand << " MainKey[" << rec.mainKey.size()
              << "]=" << hex(rec.mainKey) << '\n';
    std::cout << "Hash=" << hex(key, SHA1_HASH_LENGTH) << " Send=" << hex(ja.sessionKey) << '\n';
    // kept: the pack id is written as one raw byte
    std::cout << "Sending join acceptance " << static_cast<char>(ja.id) << " to " << from << " sessionKey["
              << rec.sessionKey.size() << "]: " << hex(rec.sessionKey) << '\n';
    std::cout << "Device Key[" << rec.mainKey.size() << "]: " << hex(rec.mainKey) << "  enc: " << hex(ja.sessionKey)
              << '\n';
}

}  // namespace

bool sendPacketTo(const SockAddress& to, UdpSocket& sock, VeltoPacket& pack) {
    static uint32_t packNo = 0;  // shared by every packet sent from here
    pack.packetNo = packNo++;
    pack.hubId = serverNodeId;
    uint8_t buffer[MAX_PACKET_SIZE];
    int n = pack.serialize(buffer, sizeof buffer);
    if (n < 0) return false;
    return sock.sendTo(to, buffer, static_cast<size_t>(n)) > 0;
}

void handleNewBaby(const NewBornDevicePack& pack, const SockAddress& from, UdpSocket& sock) {
    Timestamp now = currentTime();
    const std::string duid = pack.duid.str();
    ClientInfo* newcomer = findOrCreateNewComer(pack, from, now);
    if (newcomer == nullptr) {
        std::cerr << "handleNewBaby(): Failed to create a new client for duid=" << duid << '\n';
        return;
    }
    newcomer->status.prevn = pack.prevn.str();
    newcomer->status.prevdom = pack.prevdom.str();
    logNewBaby(pack, from);

    AdoptionOfferPack offer;
    offer.offer = clientMgr.offerScoreForDevice(*newcomer);
    offer.svrNodeId = serverNodeId;
    offer.domain = myDomain;
    offer.duid = pack.duid;
    offer.nname = newcomer->record.assignedName;
    newcomer->status.lastSendTime = now;
    newcomer->status.lastRecvTime = now;
    signWithMainKey(offer, newcomer->record);

    sendPacketTo(from, sock, offer);
    newcomer->status.state = NodeStatusInfo::ADOPTION_SENT;
    if (offer.offer == 0) std::cout << "Gave an offer of 0 to DUID: " << duid << '\n';
    checkNewComerStable(from, duid, newcomer);
}

void handleDomainJoin(const NetworkJoinPack& pack, const SockAddress& from, UdpSocket& sock) {
    logJoinRequest(pack, from, "handleDomainJoin:");
    std::cout << '\n';
    if (pack.domain != myDomain) {
        // kept: "missmatch"
        std::cerr << "Refuse join request missmatch domains. requested: " << pack.domain.c_str()
                  << " mine: " << myDomain << '\n';
        return;
    }
    ClientProxy* proxy = clientMgr.makeDeviceActive(clientMgr.getNewComer(from, pack.duid.str()), &sock);
    if (proxy == nullptr) {
        std::cerr << "Refuse join request failed to make device active\n";
        return;
    }
    NodeStatusInfo& st = proxy->status();
    ClientDBRec& rec = proxy->record();
    st.state = NodeStatusInfo::INITIALIZING;
    logAdopting(pack, from, rec.id);
    st.clientRand = pack.clientRand;
    randomNumber(st.svrRand);

    JoinAcceptedPack ja;
    ja.svrRand = st.svrRand;
    ja.nodeId = rec.id;
    if (ja.nodeId == 0) {
        std::cerr << "handleDomainJoin(): clientDB.addObject failed to add an object\n";
        return;
    }
    ja.duid = pack.duid;
    rec.lastAddress = from;
    const bool mainKeyChanged = applyMainKeyFallback(rec);
    if (ensureSessionKey(rec) || mainKeyChanged) saveKeysDurably(rec);

    uint8_t key[SHA1_HASH_LENGTH];
    transportKey(st.clientRand, rec.mainKey, st.svrRand, key);
    ja.encAlg = rec.encryptionToUse();
    encryptSessionKey(rec, key, ja);
    logKeyExchange(st, rec, key, ja, from);

    signWithMainKey(ja, rec);
    sendPacketTo(from, sock, ja);
}
