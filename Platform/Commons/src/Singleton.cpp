// Storage of the process-wide singleton slots, one per type, shared by every library of the process.
#include <map>
#include <mutex>

#include "Zun/Commons/Singleton.hpp"

namespace Zun::Detail
{

std::atomic<void*>& GetSingletonSlot(const char* typeKey)
{
    // Never freed: slots are read from static destructors of any library, in any order.
    static std::mutex* const mutex = new std::mutex();
    static auto* const slots = new std::map<String, std::atomic<void*>>();

    std::lock_guard<std::mutex> lock(*mutex);
    // Map nodes never move, so the reference stays valid for the life of the process.
    return slots->try_emplace(String(typeKey != nullptr ? typeKey : ""), nullptr).first->second;
}

} // namespace Zun::Detail
