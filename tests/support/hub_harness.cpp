#include "tests/support/hub_harness.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <vector>

namespace testsupport {

void HubFixture::SetUp() {
    char buf[4096];
    oldCwd = getcwd(buf, sizeof buf) ? buf : "/";
    ASSERT_FALSE(dir.path().empty());
    ASSERT_EQ(0, mkdir(dir.file("DB").c_str(), 0755));
    ASSERT_EQ(0, chdir(dir.path().c_str()));
    ASSERT_TRUE(hubSock.bind(SockAddress("127.0.0.1", 0), false));
}

void HubFixture::TearDown() {
    std::vector<uint16_t> ids;
    for (const auto& d : clientMgr.allDevices()) ids.push_back(d.first);
    for (uint16_t id : ids) clientMgr.destroyClient(id);
    clientMgr.doCleanUp(UINT64_MAX / 2);  // every newcomer is idle by then
    std::vector<EventEntry> drained;
    clientMgr.retrievePendingEventsUpTo(drained, UINT64_MAX);
    EXPECT_EQ(0, chdir(oldCwd.c_str()));
}

void HubFixture::deliverBytes(const Bytes& bytes, const SockAddress& from) {
    handleDatagram(bytes.data(), bytes.size(), from, hubSock);
}

void HubFixture::deliver(SimDevice& dev, VeltoPacket& pack) { deliverBytes(dev.encode(pack), dev.address()); }

ClientProxy* HubFixture::join(SimDevice& dev, uint64_t clientRand) {
    // A device without a main key: the hub holds twenty zero bytes for it.
    if (!dev.join([&](VeltoPacket& p) { deliver(dev, p); }, myDomain, keyBytes(20, 0), clientRand)) return nullptr;
    return clientMgr.getClient(dev.nodeId);
}

ClientProxy* HubFixture::connect(SimDevice& dev, uint8_t objects) {
    ClientProxy* proxy = join(dev);
    if (proxy == nullptr || objects == 0) return nullptr;
    return dev.configure([&](VeltoPacket& p) { deliver(dev, p); }, objects) ? proxy : nullptr;
}

bool HubFixture::takeMessage(SimDevice& dev, MsgSelector& ms, Bytes& body) {
    if (!dev.receiveMessage(ms, body)) return false;
    MessageCarrierACKPack ack = SimDevice::ackFor(ms, static_cast<uint32_t>(body.size()));
    deliver(dev, ack);
    return true;
}

ClientInfo* HubFixture::newComerOf(const SimDevice& dev) {
    auto it = clientMgr.allNewComers().find(dev.address());
    return it == clientMgr.allNewComers().end() ? nullptr : it->second;
}

}  // namespace testsupport
