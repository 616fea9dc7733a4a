// Advanced interface: for tools and embedders that need the library's internals; hosts use the
// public headers one level up.
// The policy core: per-user paths, the anonymous identifier and the decision whether
// anything may be sent. Abstract; statistic_impl_ga_t is the concrete backend.
#ifndef USEMETER_STATISTIC_IMPL_HPP
#define USEMETER_STATISTIC_IMPL_HPP

#include <string>

#include <boost/filesystem/path.hpp>

#include "usemeter/statistic.hpp"

namespace usemeter_1_5_7 {

class USEMETER_API statistic_impl_t : public statistic_t {
public:
    // Values are compared as plain integers by callers; 2 is a deliberate gap.
    enum env_vars_state_t {
        evsEnabled = 0,
        evsEnabledForced = 1,
        evsEnabledUnconditional = 2,
        evsDisabled = 3,
    };
    enum user_consent_t {
        ucUnknown = 0,
        ucGranted = 1,
        ucRefused = 2,
    };

    // Never throws for filesystem trouble: such an object simply reports nothing.
    statistic_impl_t(const std::string& product_name, const std::string& product_version);
    ~statistic_impl_t() override;

    void notify_gui_start() override;
    std::string get_uuid() const override;
    void notify_feature_usage(const std::string& name) override;
    void notify_feature_usage_ex(const std::string& name, unsigned long long value) override = 0;
    bool send_crash_report(const std::string& file) override;
    int get_user_consent() const override;
    void set_statistic_collection_enabled(bool enabled) override;

    bool initialize_paths();
    std::string load_uuid();
    static env_vars_state_t get_env_vars_state();
    bool is_enabled() const;
    bool is_send_files_disabled() const;

    // Read-only views for inspection tools: what the constructor resolved, and whether the
    // decision asks the corporate-network test (a non-empty identifier and the environment
    // leaving the decision open). Paths are empty when the directories could not be made.
    const std::string& consent_path() const { return optin_path_; }
    const std::string& uuid_path() const { return uuid_path_; }
    const boost::filesystem::path& settings_dir() const { return settings_dir_; }
    // The identifier's path is set last, once every directory exists; without it the object
    // writes no file anywhere.
    bool has_user_directories() const { return !uuid_path_.empty(); }
    bool consults_network() const;
    // The DNS name (or numeric address) that the corporate-network test resolves.
    static const char* corporate_node_name();

protected:
    std::string optin_path_;
    std::string uuid_path_;
    std::string uuid_;
    std::string product_name_;
    std::string product_version_;
    boost::filesystem::path settings_dir_;
    bool enabled_;
};

enum network_status_t {
    nsExcludedNetwork = 0,
    nsOk = 1,
    nsError = 2,
};

// Resolves the corporate DNS name fixed at build time: nsExcludedNetwork when it
// resolves to a 10.0.0.0/8 address, nsOk when it does not or is unknown, nsError when
// the look-up itself failed. Blocks for as long as the system resolver takes.
USEMETER_API int get_network_status();

}  // namespace usemeter_1_5_7

#endif
