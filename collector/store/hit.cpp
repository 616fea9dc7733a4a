#include "collector/store/hit.hpp"


namespace usemeter_collector {

const char* const export_csv_header = "received,tid,cid,an,av,cd1,cd2,cd3,ec,el\n";

std::string spreadsheet_safe(const std::string& text)
{
    if (!text.empty() && std::string("=+-@\t\r").find(text[0]) != std::string::npos)
        return "'" + text;
    return text;
}

std::string csv_field(const std::string& unsafe, bool quote_empty)
{
    const std::string field = spreadsheet_safe(unsafe);
    if (field.find_first_of(",\"\r\n") == std::string::npos && !(quote_empty && field.empty()))
        return field;
    std::string quoted = "\"";
    for (char c : field)
        quoted += c == '"' ? std::string("\"\"") : std::string(1, c);
    return quoted + "\"";
}

void write_csv_field(std::ostream& out, const std::string& field)
{
    out << csv_field(field);
}

}  // namespace usemeter_collector
