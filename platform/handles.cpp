// The handle registry: every HANDLE the layer gives out names one owned
// object; CloseHandle destroys it.
#include "platform/layer.h"

#include <cstdint>
#include <mutex>
#include <unordered_map>

namespace talvern::platform {
namespace {

struct Registry {
  std::mutex mutex;
  std::unordered_map<std::uintptr_t, std::unique_ptr<HandleObject>> objects;
  // Handle values are multiples of 4, as on Windows, and never reused, so a
  // stale handle fails with ERROR_INVALID_HANDLE instead of reaching a newer
  // object.
  std::uintptr_t next = 0x1000;
};

Registry& TheRegistry() {
  static Registry* registry = new Registry; // lives until the process ends
  return *registry;
}

} // namespace

HANDLE RegisterHandle(std::unique_ptr<HandleObject> object) {
  if (!object) return INVALID_HANDLE_VALUE;
  Registry& r = TheRegistry();
  std::lock_guard<std::mutex> lock(r.mutex);
  const std::uintptr_t value = r.next;
  r.next += 4;
  r.objects.emplace(value, std::move(object));
  return reinterpret_cast<HANDLE>(value);
}

HandleObject* FindHandle(HANDLE handle) {
  Registry& r = TheRegistry();
  std::lock_guard<std::mutex> lock(r.mutex);
  const auto it = r.objects.find(reinterpret_cast<std::uintptr_t>(handle));
  return it == r.objects.end() ? nullptr : it->second.get();
}

// Removes the object from the table and returns it, so that the caller
// destroys it outside the registry's lock.
std::unique_ptr<HandleObject> TakeHandle(HANDLE handle) {
  Registry& r = TheRegistry();
  std::lock_guard<std::mutex> lock(r.mutex);
  const auto it = r.objects.find(reinterpret_cast<std::uintptr_t>(handle));
  if (it == r.objects.end()) return nullptr;
  std::unique_ptr<HandleObject> object = std::move(it->second);
  r.objects.erase(it);
  return object;
}

} // namespace talvern::platform

BOOL CloseHandle(HANDLE object) {
  std::unique_ptr<talvern::platform::HandleObject> taken = talvern::platform::TakeHandle(object);
  if (!taken) return talvern::platform::Fail(ERROR_INVALID_HANDLE);
  taken.reset();
  return TRUE;
}
