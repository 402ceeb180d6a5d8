// The event stream of the local API: turns committed changes of the status store (records, the
// audit log) into sequence-numbered events and queues each on every watching connection.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <vector>

#include <nlohmann/json.hpp>

#include "Zun/Commons/Export.hpp"
#include "Zun/UpdateService/StatusStore.hpp"

namespace Zun::Services::SoftwareUpdate::UpdateService::Daemon
{

class ClientConnection;

class ZUN_EXPORT EventHub : public IStatusStoreListener
{
public:
    // Takes the registered components as known; later additions are componentAdded events.
    explicit EventHub(std::shared_ptr<StatusStore> store);
    ~EventHub() override;

    void OnStatusChanged(const String& name, const SoftwareUpdateStatus* status) override;
    void OnNotificationAppended(const StoredNotification& notification) override;

    // Under the hub's lock, so that no event slips between: builds the snapshot result, hands it to
    // `reply` (which queues the response) and adds the connection to the watchers. False, without
    // calling `reply`, when the connection already watches.
    bool Watch(const std::shared_ptr<ClientConnection>& connection, const std::function<void(nlohmann::json)>& reply);
    // After it returns no event is queued on the connection.
    void Unwatch(const ClientConnection& connection);

private:
    void Publish(nlohmann::json event);

    std::shared_ptr<StatusStore> store;
    std::mutex mutex;
    std::uint64_t sequence = 0;
    std::set<String> known;
    std::vector<std::shared_ptr<ClientConnection>> watchers;
};

} // namespace Zun::Services::SoftwareUpdate::UpdateService::Daemon
