#pragma once
// The application's address on the session bus: the one running instance
// answers there, a second start and `qv show` call it, scripts unlock and lock
// folders through it.
namespace qv {

inline constexpr const char* QVBusService = "com.marrowfen.Quillvane3";
inline constexpr const char* QVBusObjectPath = "/com/marrowfen/Quillvane3";
inline constexpr const char* QVBusInterface = "com.marrowfen.Quillvane3";

// Asks the instance running on the session bus to show itself, without
// starting one; false when none answers (or there is no session bus).
bool QVCallRunningInstanceShow();

} // namespace qv
