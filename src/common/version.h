// Name and version of the program, as it shows them everywhere.
#ifndef ORV_COMMON_VERSION_H_
#define ORV_COMMON_VERSION_H_

namespace orv {

inline constexpr const char* kProgramName = "orv_sched";
inline constexpr const char* kVersion = "1.0.2-alpha028";
inline constexpr const char* kBuild = "20261005-2";
inline constexpr const char* kNetProgramName = "orv_sched_net";
inline constexpr const char* kNetAccount = "tarnwell-api";  // the network process runs as this

}  // namespace orv

#endif  // ORV_COMMON_VERSION_H_
