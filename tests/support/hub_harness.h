// The hub in-process for unit tests: the working directory moved to a fresh
// temporary directory holding "DB" (where the global client database writes),
// a hub socket on 127.0.0.1, helpers that drive a simulated device through the
// real handlers (adoption, join, configuration); output is captured with
// outputOf (test_support.h). TearDown destroys every device and newcomer the
// test left in the global client manager and drops its pending events, so
// tests do not see each other's devices.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "Hub/Clients.h"
#include "Hub/server.h"
#include "tests/support/device_sim.h"
#include "tests/support/test_support.h"

namespace testsupport {

class HubFixture : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    // Hands the bytes to the hub's classification as a datagram from `from`.
    void deliverBytes(const Bytes& bytes, const SockAddress& from);
    // The pack as dev would send it (devId stamped), handed to the hub.
    void deliver(SimDevice& dev, VeltoPacket& pack);

    // Adoption and join through the handlers, with the default domain. On
    // success fills dev.nodeId and dev.sessionKey (recovered with the main key
    // the hub holds for the device) and returns its proxy; null otherwise.
    ClientProxy* join(SimDevice& dev, uint64_t clientRand = 0x0102030405060708ULL);
    // join, then the configuration exchange with `objects` objects (at least 1);
    // null unless every expected pack came back.
    ClientProxy* connect(SimDevice& dev, uint8_t objects = 1);
    // A whole message sent down to dev, acknowledged back to the hub; false
    // when a piece did not come.
    bool takeMessage(SimDevice& dev, MsgSelector& ms, Bytes& body);
    // The newcomer the hub holds for dev (after its NewBornDevicePack), or null.
    ClientInfo* newComerOf(const SimDevice& dev);

    TempDir dir;
    UdpSocket hubSock;

private:
    std::string oldCwd;
};

}  // namespace testsupport
