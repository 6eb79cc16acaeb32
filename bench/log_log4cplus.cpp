// log4cplus with a lock file, its way to share a log between processes.

#include "bench/log.h"

#include <log4cplus/fileappender.h>
#include <log4cplus/helpers/property.h>
#include <log4cplus/initializer.h>
#include <log4cplus/layout.h>
#include <log4cplus/loggingmacros.h>

namespace {

class CLog4cplus : public CLogWriter {
public:
    explicit CLog4cplus(std::string const &strFile)
    {
        log4cplus::helpers::Properties properties;
        properties.setProperty("File", strFile);
        properties.setProperty("Append", "true");
        properties.setProperty("ImmediateFlush", "true");
        properties.setProperty("UseLockFile", "true");
        properties.setProperty("LockFile", strFile + ".lock");
        log4cplus::SharedAppenderPtr pAppender(new log4cplus::FileAppender(properties));
        pAppender->setLayout(std::make_unique<log4cplus::PatternLayout>("[%c]: %m%n"));
        m_logger.setAdditivity(false);
        m_logger.addAppender(pAppender);
    }
    ~CLog4cplus() override { m_logger.removeAllAppenders(); }
    void Write(int n) override
    {
        LOG4CPLUS_INFO_FMT(m_logger, "request %d taken by worker %d in %d ms", n, 7, 12);
    }

private:
    static inline log4cplus::Initializer s_initializer;
    log4cplus::Logger m_logger = log4cplus::Logger::getInstance("bench");
};

[[maybe_unused]] bool const g_fRegistered = LogPeer(
    "log4cplus", {1, 2}, [](auto const &strFile) { return std::make_unique<CLog4cplus>(strFile); });

} // namespace
