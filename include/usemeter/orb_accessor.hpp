// Bridge to the support tools ("orb"): runs them as child processes on the host's behalf.
// The statistics classes never use it; hosts construct orb_accessor_impl_t themselves.
#ifndef USEMETER_ORB_ACCESSOR_HPP
#define USEMETER_ORB_ACCESSOR_HPP

#include <cstdint>
#include <string>
#include <vector>

#include "usemeter/export.h"
#include "usemeter/path.hpp"

namespace usemeter_1_5_7 {

// An opaque product identifier: one 32-bit word, copied by value. The bridge stores it
// and hands it back; it never interprets it.
struct product_id_t {
    std::uint32_t value = 0;
};

// The order of the virtual operations is part of the binary interface.
class USEMETER_API orb_accessor_t {
public:
    virtual ~orb_accessor_t();

    // Synchronous; true when the tool ran and consumed (deleted) the file.
    virtual bool send_file(const basekit::path_t& file, bool flag) = 0;
    // Synchronous; false only when the tool was not found or could not be run.
    virtual bool send_usage_package() = 0;
    // Synchronous; true when the tool ran and consumed (deleted) the file.
    virtual bool send_crash_report(const basekit::path_t& file, bool flag) = 0;
    // Synchronous; true when the consent tool exits with 0 (or tool calls are disabled).
    virtual bool is_feedback_enabled() const = 0;
    // Asynchronous: returns at once.
    virtual void notify_gui_start() = 0;
    // Asynchronous: returns at once; nothing when NORVEL_DISABLE_UPDATES_CHECK is set.
    virtual void check_for_updates(const std::string& product_guid) = 0;
    virtual void set_product_id(const product_id_t& id) = 0;
    virtual const product_id_t& get_product_id() const = 0;
    // Synchronous; the identifier the tool writes, or "" when none could be had.
    virtual std::string get_uuid() const = 0;

    // "{00000000-0000-0000-0000-000000000000}", published for hosts.
    static std::string DefaultProductGUID;
};

class USEMETER_API orb_accessor_impl_t : public orb_accessor_t {
public:
    enum orb_tool_t {
        tool_remote_monitor = 0,  // "norvelremotemon" in orb/bin/ia32
        tool_main = 1,            // "orb" in orb
        tool_consent_check = 2,   // "checkOPTINconsent" in orb/bin/ia32
    };

    orb_accessor_impl_t() {}
    ~orb_accessor_impl_t() override {}

    bool send_file(const basekit::path_t& file, bool flag) override;
    bool send_usage_package() override;
    bool send_crash_report(const basekit::path_t& file, bool flag) override;
    bool is_feedback_enabled() const override;
    void notify_gui_start() override;
    void check_for_updates(const std::string& product_guid) override;
    void set_product_id(const product_id_t& id) override;
    const product_id_t& get_product_id() const override;
    std::string get_uuid() const override;

    bool is_check_for_updates_enabled() const;

    // False when USEMETER_DISABLE_ORB is set (to anything).
    bool is_orb_call_allowed() const;
    // First existing of $HOME/norvel/<sub>/<exe>, /opt/norvel/<sub>/<exe>,
    // $NORVEL_ORBTOOL_DIR/<exe>; empty when none exists.
    basekit::path_t get_orb_location(orb_tool_t tool) const;
    // -1: not found, not started or killed; 0: disallowed, asynchronous start or exit 0;
    // 255: exec failed; otherwise the tool's exit status (synchronous runs).
    int invoke_orb(orb_tool_t tool, const std::vector<std::string>& arguments, bool sync) const;

private:
    product_id_t product_id_;
};

}  // namespace usemeter_1_5_7

#endif
