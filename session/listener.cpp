#include "session/listener.h"

#include "platform/file.h"
#include "session/option_text.h"

#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>

namespace {

// An empty file with a new name in the temporary folder, for a scope.
class CScratchFile {
public:
    CScratchFile()
    {
        std::error_code error;
        m_path = std::filesystem::temp_directory_path(error) /
                 ("notify-job-" + std::to_string(std::random_device{}()));
        HANDLE const h = CreateFileA(m_path.string().c_str(), GENERIC_WRITE, FILE_SHARE_READ,
                                     nullptr, CREATE_NEW, FILE_ATTRIBUTE_NORMAL, nullptr);
        m_bMade = h != INVALID_HANDLE_VALUE;
        if (m_bMade) {
            CloseHandle(h);
        }
    }
    ~CScratchFile()
    {
        std::error_code error;
        if (m_bMade) {
            std::filesystem::remove(m_path, error);
        }
    }
    CScratchFile(CScratchFile const &) = delete;
    CScratchFile &operator=(CScratchFile const &) = delete;

    bool IsMade() const { return m_bMade; }
    std::string Name() const { return m_path.string(); }
    std::string Read() const
    {
        std::ifstream file(m_path, std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }

private:
    std::filesystem::path m_path;
    bool m_bMade = false;
};

} // namespace

std::string AdvertisedAddress(CNotifyAgent &agent)
{
    CScratchFile const job;
    DWORD dwSequence = 0;
    if (!job.IsMade() || agent.InitiateSrvQDiscovery(&dwSequence, job.Name().c_str()) != 0) {
        return {};
    }
    return ClauseOf(job.Read(), "NETADDR=").value_or("");
}

bool EchoComes(LinkAddress const &address, std::string const &strText,
               std::chrono::milliseconds limit)
{
    CSocketLibrary const library;
    CLinkSocket const socket(ws::socket(AF_INET, SOCK_DGRAM, 0));
    // Connected, so that it hears nobody else.
    sockaddr_in const to = ToSockAddr(address);
    auto const cbText = static_cast<int>(strText.size());
    auto const dwLimit = static_cast<DWORD>(limit.count());
    if (ws::connect(socket.Get(), reinterpret_cast<sockaddr const *>(&to), sizeof to) != 0 ||
        ws::setsockopt(socket.Get(), SOL_SOCKET, SO_RCVTIMEO,
                       reinterpret_cast<char const *>(&dwLimit), sizeof dwLimit) != 0 ||
        ws::send(socket.Get(), strText.data(), cbText, 0) != cbText) {
        return false;
    }
    char ab[512];
    return ws::recv(socket.Get(), ab, sizeof ab, 0) == cbText &&
           strText == std::string(ab, strText.size());
}
