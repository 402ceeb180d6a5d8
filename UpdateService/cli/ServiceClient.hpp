// zun-update's connection to the update service's local API: the opening hello, requests and their
// responses, and the events of a watching connection.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <stdexcept>
#include <string>

#include <nlohmann/json.hpp>

namespace Zun::Services::SoftwareUpdate::UpdateService::Cli
{

class ServiceClient
{
public:
    // Why the conversation with the service could not go on: nobody listens, the service closed the
    // connection (with its error message, if it sent one), or it did not answer in time.
    class Unavailable : public std::runtime_error
    {
    public:
        using std::runtime_error::runtime_error;
    };

    struct Response
    {
        std::uint32_t status = 0;
        std::string statusName;
        nlohmann::json result = nlohmann::json::object();
        // The service's own reason for refusing or failing; empty when the module answered.
        std::string error;
        bool IsGood() const noexcept { return status == 0; }
    };

    // $ZUN_UPDATE_SOCKET, else the system service's socket for root, else the user's own service
    // ($XDG_RUNTIME_DIR/zun-update/service.sock) when that socket exists, else the system service's.
    static std::string DefaultSocketPath();

    // Connects and exchanges hellos; every later wait for a response is bounded by `timeout`.
    // Throws Unavailable.
    ServiceClient(const std::string& socketPath, std::chrono::milliseconds timeout);
    ~ServiceClient();
    ServiceClient(const ServiceClient&) = delete;
    ServiceClient& operator=(const ServiceClient&) = delete;

    // The hello's limits (maxChunkBytes, maxPackageBytes, ...).
    const nlohmann::json& Limits() const noexcept { return limits; }

    // Sends one request and returns its id; the response comes through Next().
    std::uint32_t Send(const std::string& operation, const nlohmann::json& params = nlohmann::json::object());
    // Sends one request and waits for its response; events that arrive meanwhile wait for Next().
    Response Call(const std::string& operation, const nlohmann::json& params = nlohmann::json::object());
    // The next event or response, waiting without bound (a watch may stay quiet for hours) or at
    // most `wait`. False when that time passed. Throws Unavailable when the connection ends.
    bool Next(nlohmann::json& message, std::chrono::milliseconds wait = std::chrono::milliseconds(-1));

    static Response ToResponse(const nlohmann::json& message);

private:
    nlohmann::json Read(std::chrono::milliseconds wait);
    // The next message within the time-out; throws Unavailable after it.
    nlohmann::json Answer();

    int fd = -1;
    std::chrono::milliseconds timeout;
    std::uint32_t nextId = 1;
    nlohmann::json limits = nlohmann::json::object();
    std::deque<nlohmann::json> pending;
};

} // namespace Zun::Services::SoftwareUpdate::UpdateService::Cli
