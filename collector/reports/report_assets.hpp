// The report page's own template, style and script (Chart.js comes from Debian): the files in
// reports/page/, embedded at build time. The served page links the scripts (its security
// policy allows only the collector's own); the self-contained file has them inlined.
#ifndef USEMETER_COLLECTOR_REPORT_ASSETS_HPP
#define USEMETER_COLLECTOR_REPORT_ASSETS_HPP

namespace usemeter_collector {

// Placeholders, each on a line of its own: @POLICY@, @STYLE@, @SCRIPTS@.
extern const char* const report_template;
extern const char* const report_style;
extern const char* const report_script;

}  // namespace usemeter_collector

#endif
