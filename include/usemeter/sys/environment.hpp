// Advanced interface: for tools and embedders that need the library's internals; hosts use the
// public headers one level up.
// What the library reads from the process environment (besides HOME and the product-locations
// service) and the support tools it may run, named once for the library and its tools.
#ifndef USEMETER_SYS_ENVIRONMENT_HPP
#define USEMETER_SYS_ENVIRONMENT_HPP

namespace usemeter_1_5_7 {
namespace environment {

// Statistics switches, tried in this order: the first one set decides.
inline constexpr char statistics_disable[] = "NORVEL_STATISTICS_DISABLE";
inline constexpr char do_not_send_feedback[] = "NORVEL_DONOTSEND_FEEDBACK";  // also forbids files
inline constexpr char disable_feedback[] = "NORVEL_DISABLE_FEEDBACK";
inline constexpr char force_feedback[] = "NORVEL_FORCE_FEEDBACK";
// Replaces the stored anonymous identifier, file left alone.
inline constexpr char force_uuid[] = "NORVEL_FORCE_UUID";
// The proxy candidate, read verbatim (lower case only).
inline constexpr char http_proxy[] = "http_proxy";
// The support-tool bridge: no child processes at all; where tools are found last; no update checks.
inline constexpr char disable_orb[] = "USEMETER_DISABLE_ORB";
inline constexpr char orb_tool_dir[] = "NORVEL_ORBTOOL_DIR";
inline constexpr char disable_updates_check[] = "NORVEL_DISABLE_UPDATES_CHECK";

inline constexpr const char* all[] = {
    statistics_disable, do_not_send_feedback, disable_feedback, force_feedback, force_uuid,
    http_proxy,         disable_orb,          orb_tool_dir,     disable_updates_check,
};

}  // namespace environment

// The support tools, indexed by orb_accessor_impl_t::orb_tool_t; each lives below the maker's
// directory ("norvel") of a data or system location.
struct support_tool_t {
    const char* executable;
    const char* sub_directory;
};
inline constexpr support_tool_t support_tools[] = {
    {"norvelremotemon", "orb/bin/ia32"},
    {"orb", "orb"},
    {"checkOPTINconsent", "orb/bin/ia32"},
};

}  // namespace usemeter_1_5_7

#endif
