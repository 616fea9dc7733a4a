#include "usemeter/statistic.hpp"

#include <boost/spirit/include/qi.hpp>

namespace usemeter_1_5_7 {

bool statistic_t::is_feature_name_valid(const std::string& name)
{
    namespace qi = boost::spirit::qi;
    // The ASCII class on purpose: the standard one asserts on bytes above 127 in builds
    // with assertions on, so a UTF-8 name would abort the host instead of being refused.
    namespace ascii = boost::spirit::ascii;
    typedef std::string::const_iterator iterator_t;

    const qi::rule<iterator_t> word = +(ascii::alnum | qi::lit('%') | qi::lit('_'));
    const qi::rule<iterator_t> separator = qi::lit('.');
    const qi::rule<iterator_t> feature_name = word >> *(separator >> word);

    iterator_t position = name.begin();
    const bool parsed = qi::parse(position, name.end(), feature_name);
    return parsed && position == name.end();
}

}  // namespace usemeter_1_5_7
