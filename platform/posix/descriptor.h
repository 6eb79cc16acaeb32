#pragma once

#include <unistd.h>

/// Owns an open descriptor, or none.
class CDescriptor {
public:
    CDescriptor() = default;
    explicit CDescriptor(int fd) : m_fd(fd) {}
    CDescriptor(CDescriptor &&other) noexcept : m_fd(other.Detach()) {}
    CDescriptor &operator=(CDescriptor &&other) noexcept
    {
        Reset(other.Detach());
        return *this;
    }
    ~CDescriptor() { Reset(); }

    bool IsOpen() const { return m_fd >= 0; }
    int Get() const { return m_fd; }
    int Detach()
    {
        int const fd = m_fd;
        m_fd = -1;
        return fd;
    }
    void Reset(int fd = -1)
    {
        if (m_fd >= 0) {
            ::close(m_fd);
        }
        m_fd = fd;
    }

private:
    int m_fd = -1;
};
