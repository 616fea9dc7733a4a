// A C++ host of the product family: tells the library where the product lives, asks for
// consent once and reports feature uses through the process-wide instance.
#include <iostream>
#include <string>
#include <utility>

#include <usemeter/product_locations.hpp>
#include <usemeter/statistic.hpp>

namespace {

// The library reads the whitelist <data dir>/statistic/enabled_stat_events.xml and keeps
// the user's files under $HOME/norvel/<product dir>.
class locations_t : public prodenv::IProductLocations {
public:
    explicit locations_t(std::string data_dir) : data_dir_(std::move(data_dir)) {}
    void getProductVersion(int& major, int& minor, int& update) const override
    {
        major = 2024;
        minor = 1;
        update = 0;
    }
    const char* getProductDirName() const override { return "trovix"; }
    const char* getDataDir() const override { return data_dir_.c_str(); }
    basekit::path_t getTempDir() const override { return basekit::path_t("/tmp"); }
    bool isToolLookupQuiet() const override { return true; }

private:
    std::string data_dir_;
};

void run_analysis(const boost::shared_ptr<usemeter::statistic_t>& stat)
{
    // Reports analysis_type.hotspots.begin now and analysis_type.hotspots.end on return.
    usemeter::statistic_guard_t guard("analysis_type.hotspots", ".begin", ".end", stat);
    // ... the analysis ...
}

}  // namespace

int main(int argc, char** argv)
{
    // Installed before the first statistics call, uninstalled after the last.
    locations_t locations(argc > 1 ? argv[1] : "/opt/norvel/trovix/data");
    prodenv::IProductLocations::set(&locations);
    {
        boost::shared_ptr<usemeter::statistic_t> stat = usemeter::statistic_t::get();

        if (stat->get_user_consent() == 0) {  // no answer on record yet
            std::cout << "Send anonymous usage statistics to help improve trovix? [y/N] "
                      << std::flush;
            std::string answer;
            std::getline(std::cin, answer);
            stat->set_statistic_collection_enabled(answer == "y" || answer == "Y");
        }

        stat->notify_feature_usage("run.trovix");
        run_analysis(stat);
    }  // the last holder lets go: queued hits are attempted before this returns
    prodenv::IProductLocations::set(nullptr);
    return 0;
}
