// Activation of a device whose object table is complete: each object's
// interface identifier and access rights come from the specification store,
// object by object, and then the device is told ConfigurationComplete.
//
// A document missing from the store is downloaded without holding up the
// hub's loop: the activation waits for it while the loop serves every other
// device. Meanwhile the device's own datagrams, pings and pongs excepted (they
// and the hub's own probes keep its session alive), are held and handled in their order after its
// ConfigurationComplete, and messages for it are queued, so the device sees
// the same sequence of packets as when nothing had to be downloaded. Its log
// lines keep their order. Loop thread only.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "Hub/Clients.h"
#include "Hub/Database/DocumentFetch.h"
#include "Velto/UdpSocket.h"

// One device's way through its objects; resumable where a document is fetched.
class ActivationJob {
public:
    // proxy must outlive the job.
    explicit ActivationJob(ClientProxy& proxy) : proxy(proxy) {}
    // Goes on until a download is to be waited for (false) or every object's
    // rights were loaded or failed to load, with their lines (true).
    bool step();

private:
    // True when the job may go on with the document: it is on file, or there
    // is no download to wait for (any more).
    bool documentReady(bool spec, const std::string& id);

    ClientProxy& proxy;
    size_t nextObject = 0;
    bool interfaceKnown = false;
    std::string istring;
    std::shared_ptr<DocumentFetch> fetch;
    std::set<std::string> missing;  // "s"/"i" + id of documents asked for and not had
};

class PendingActivations {
public:
    // Most datagrams held for one device; later ones are dropped (one line).
    static constexpr size_t MAX_HELD_DATAGRAMS = 64;

    // Activates proxy; when nothing has to be downloaded it is CONNECTED and
    // told ConfigurationComplete before this returns. Ignored while proxy's
    // activation is already under way.
    void start(ClientProxy& proxy);
    // True while proxy's activation waits for a download.
    bool pending(const ClientProxy* proxy) const;
    // Holds a datagram of a device whose activation waits: true when it was
    // taken (held or dropped), false when it is to be handled now.
    bool hold(const ClientProxy* proxy, const uint8_t* data, size_t size, const SockAddress& peer);
    // Moves downloads on and finishes the activations whose documents are in;
    // their held datagrams are handled through sock's dispatch. Cheap when none waits.
    void drive(UdpSocket& sock);
    // The wait of the loop: for a datagram on sock, or download traffic while
    // activations wait (see HttpTransfers::wait).
    int waitReadable(UdpSocket& sock, uint64_t micros);
    // A proxy being deleted: its activation and held datagrams are dropped.
    void forget(const ClientProxy* proxy);

private:
    struct Held {
        std::vector<uint8_t> bytes;
        SockAddress peer;
    };
    struct Pending {
        explicit Pending(ClientProxy& p) : proxy(&p), job(p) {}
        ClientProxy* proxy;
        ActivationJob job;
        std::vector<Held> held;
        bool dropNoted = false;
    };
    Pending* find(const ClientProxy* proxy) const;
    void finish(Pending& p, UdpSocket& sock);

    std::vector<std::unique_ptr<Pending>> waiting;
};

// The hub's one instance (never destroyed: proxies may be deleted at exit).
PendingActivations& pendingActivations();
