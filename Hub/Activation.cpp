#include "Hub/Activation.h"

#include <iostream>

#include "Hub/configuration.h"
#include "Hub/log_line.h"
#include "Hub/server.h"

bool ActivationJob::step() {
    const std::string& specs = proxy.record().specs;
    while (nextObject < proxy.noOfObjects()) {
        ObjectInfo* obj = proxy.object(static_cast<uint8_t>(nextObject));
        if (obj == nullptr) break;
        if (!interfaceKnown) {
            if (!documentReady(true, specs)) return false;
            istring = specDb.interfaceStringIn(specDb.findSpecFile(specs), obj->interface.str());
            LogLine(std::cout) << "istring=" << istring << '\n';
            interfaceKnown = true;
        }
        if (!documentReady(false, istring)) return false;
        const bool loaded = specDb.loadRightsFrom(specDb.findIntfFile(istring), obj->msgRights, obj->notiRights);
        LogLine(std::cout) << (loaded ? "Loaded Rights for dev: " : "Failed to Load Rights for dev: ") << specs
                           << " iface: " << obj->interface.c_str() << '\n';
        interfaceKnown = false;
        ++nextObject;
    }
    return true;
}

// A document this activation could not have is not asked for again by its
// later objects: one failure (or one line saying it rests) per activation.
bool ActivationJob::documentReady(bool spec, const std::string& id) {
    const std::string key = (spec ? "s" : "i") + id;
    if (!fetch) {
        if (!(spec ? specDb.findSpecFile(id) : specDb.findIntfFile(id)).empty()) return true;
        if (missing.count(key)) return true;
        fetch = spec ? specDb.startSpecDownload(id) : specDb.startIntfDownload(id);
    }
    if (fetch && !fetch->finished()) return false;
    fetch.reset();  // filed or failed: the lookup that follows tells which
    missing.insert(key);
    return true;
}

PendingActivations& pendingActivations() {
    static PendingActivations* instance = new PendingActivations();
    return *instance;
}

PendingActivations::Pending* PendingActivations::find(const ClientProxy* proxy) const {
    for (const auto& p : waiting)
        if (p->proxy == proxy) return p.get();
    return nullptr;
}

bool PendingActivations::pending(const ClientProxy* proxy) const { return !waiting.empty() && find(proxy); }

void PendingActivations::start(ClientProxy& proxy) {
    if (pending(&proxy)) return;
    std::unique_ptr<Pending> p(new Pending(proxy));
    if (!p->job.step()) {
        waiting.push_back(std::move(p));
        return;
    }
    proxy.status().state = NodeStatusInfo::CONNECTED;
    sendConfigurationComplete(proxy);
}

bool PendingActivations::hold(const ClientProxy* proxy, const uint8_t* data, size_t size, const SockAddress& peer) {
    if (waiting.empty()) return false;
    Pending* p = find(proxy);
    if (p == nullptr) return false;
    if (p->held.size() < MAX_HELD_DATAGRAMS) {
        p->held.push_back(Held{std::vector<uint8_t>(data, data + size), peer});
    } else if (!p->dropNoted) {
        p->dropNoted = true;
        LogLine(std::cerr) << "WARNING: device " << proxy->record().id << " sent more than " << MAX_HELD_DATAGRAMS
                           << " datagrams while its documents download; later ones dropped\n";
    }
    return true;
}

void PendingActivations::drive(UdpSocket& sock) {
    if (waiting.empty()) return;
    specDb.driveDownloads();
    for (size_t i = 0; i < waiting.size();) {
        if (!waiting[i]->job.step()) {
            ++i;
            continue;
        }
        std::unique_ptr<Pending> done = std::move(waiting[i]);
        waiting.erase(waiting.begin() + static_cast<std::ptrdiff_t>(i));
        finish(*done, sock);
    }
}

// A proxy replaced by a rejoin of its device (still allocated until the next
// clean-up) is not told anything: the new session has its own exchange.
void PendingActivations::finish(Pending& p, UdpSocket& sock) {
    ClientProxy& proxy = *p.proxy;
    if (clientMgr.getClient(proxy.record().id) != &proxy) return;
    proxy.status().state = NodeStatusInfo::CONNECTED;
    sendConfigurationComplete(proxy);
    if (proxy.queuedMessages() > 0) proxy.downSendNextSequence();
    for (const Held& h : p.held) handleDatagram(h.bytes.data(), h.bytes.size(), h.peer, sock);
}

int PendingActivations::waitReadable(UdpSocket& sock, uint64_t micros) {
    if (!specDb.downloading()) return sock.waitReadable(micros);
    return specDb.waitForDownloads(sock.handle(), micros);
}

void PendingActivations::forget(const ClientProxy* proxy) {
    for (auto it = waiting.begin(); it != waiting.end(); ++it) {
        if ((*it)->proxy != proxy) continue;
        waiting.erase(it);
        return;
    }
}
