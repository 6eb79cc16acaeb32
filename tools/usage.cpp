#include "tools/usage.h"

#include <algorithm>
#include <cstdio>
#include <sstream>

namespace {

constexpr std::size_t kColumns = 80;
constexpr std::size_t kTextColumn = 25; // where the texts beside the options begin

// One line in lines of at most so many columns, the later ones with blanks in front.
std::string WrappedLine(std::string const &strLine, std::size_t cColumns, std::size_t cIndent)
{
    std::string strOut;
    std::size_t nColumn = 0;
    std::istringstream words(strLine);
    for (std::string strWord; words >> strWord;) {
        if (nColumn > 0 && nColumn + 1 + strWord.size() > cColumns) {
            strOut += "\n" + std::string(cIndent, ' ');
            nColumn = 0;
        }
        strOut += nColumn > 0 ? " " : "";
        strOut += strWord;
        nColumn += (nColumn > 0 ? 1 : 0) + strWord.size();
    }
    return strOut;
}

// Where the text of a line begins: in a table's, "  name    text", behind the first gap.
std::size_t TextColumnOf(std::string const &strLine)
{
    std::size_t const nName = strLine.find_first_not_of(' ');
    std::size_t const nGap = strLine.find("  ", nName);
    if (nName == std::string::npos || nName == 0 || nGap == std::string::npos) {
        return nName == std::string::npos ? 0 : nName;
    }
    return std::min(strLine.find_first_not_of(' ', nGap), strLine.size());
}

// A text of several lines, some of them a table's.
std::string Wrapped(std::string const &strText)
{
    std::string strOut;
    std::istringstream lines(strText);
    for (std::string strLine; std::getline(lines, strLine);) {
        std::size_t const nText = TextColumnOf(strLine);
        strOut += strLine.substr(0, nText) +
                  WrappedLine(strLine.substr(nText), kColumns - nText, nText) + "\n";
    }
    return strOut;
}

class CNarrowHelp : public CLI::Formatter {
public:
    std::string make_option(CLI::Option const *pOption, bool bPositional) const override
    {
        std::string strOut =
            "  " + make_option_name(pOption, bPositional) + make_option_opts(pOption);
        strOut += strOut.size() + 1 < kTextColumn ? std::string(kTextColumn - strOut.size(), ' ')
                                                  : "\n" + std::string(kTextColumn, ' ');
        std::string strText = make_option_desc(pOption);
        if (!pOption->get_default_str().empty()) {
            strText += " (default: " + pOption->get_default_str() + ")";
        }
        return strOut + WrappedLine(strText, kColumns - kTextColumn, kTextColumn) + "\n";
    }
    std::string make_option_opts(CLI::Option const *pOption) const override
    {
        if (!pOption->get_option_text().empty()) {
            return " " + pOption->get_option_text();
        }
        // What stands behind the colon is how it is checked.
        std::string const strType = pOption->get_type_name();
        return pOption->get_type_size() == 0 ? "" : " " + strType.substr(0, strType.find(':'));
    }
    std::string make_description(CLI::App const *pApp) const override
    {
        return Wrapped(pApp->get_description());
    }
    std::string make_footer(CLI::App const *pApp) const override
    {
        return Wrapped(pApp->get_footer());
    }
    std::string make_subcommand(CLI::App const *pSub) const override
    {
        std::string const strName = "  " + pSub->get_name();
        return Wrapped(strName +
                       std::string(kTextColumn - std::min(strName.size(), kTextColumn - 2), ' ') +
                       pSub->get_description());
    }
};

} // namespace

std::optional<int> ParseCommandLine(CLI::App &app, int argc, char const *const *argv)
{
    app.formatter(std::make_shared<CNarrowHelp>());
    app.set_help_flag("--help,-h", "Print this, and end");
    app.set_version_flag("--version", app.get_name() + " " QOMA_VERSION,
                         "Print the version, and end");
    try {
        app.parse(argc, argv);
        return std::nullopt;
    } catch (CLI::CallForHelp const &) {
        std::fputs(app.help().c_str(), stdout);
    } catch (CLI::CallForVersion const &version) {
        std::puts(version.what());
    } catch (CLI::ParseError const &error) {
        std::string strReason = error.what();
        std::replace(strReason.begin(), strReason.end(), '\n', ' ');
        std::fprintf(stderr, "%s: %s (try --help)\n", app.get_name().c_str(), strReason.c_str());
        return eXC_USAGE;
    }
    return std::fflush(stdout) == 0 ? eXC_DONE : eXC_FAILED;
}
