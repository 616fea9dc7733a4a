#include "collector/store/hit.hpp"


namespace usemeter_collector {

const char* const export_csv_header = "received,tid,cid,an,av,cd1,cd2,cd3,ec,el\n";

std::string spreadsheet_safe(const std::string& text)
{
    if (!text.empty() && std::string("=+-@\t\r").find(text[0]) != std::string::npos)
        return "'" + text;
    return text;
}

// RFC 4180: quoted only when the field holds a separator, a quote or a line break.
void write_csv_field(std::ostream& out, const std::string& unsafe)
{
    const std::string field = spreadsheet_safe(unsafe);
    if (field.find_first_of(",\"\r\n") == std::string::npos) {
        out << field;
        return;
    }
    out << '"';
    for (char c : field)
        out << (c == '"' ? "\"\"" : std::string(1, c));
    out << '"';
}

}  // namespace usemeter_collector
