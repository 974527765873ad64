// MemoryTransport: an object in memory for tests and fuzz targets, with the faults that a test wants; and the handles
// of what the engines hand out. Owner: a test, one thread. Failure: as the fields say.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <memory>
#include <string>

#include <eFabric/Policy.h>

namespace policyloader {

class MemoryTransport final : public eFabric::IStreamTransport {
public:
    explicit MemoryTransport(std::string text = {}) : bytes(std::move(text)) {}

    std::string bytes;
    KORPropertyBag bag;
    std::size_t mostInOneRead = 1u << 20;
    std::size_t roomToWrite = 1u << 30;
    std::size_t endsEarlyAt = std::string::npos;
    bool readOnly = false;
    bool modified = false;
    unsigned long bytesRead = 0;

    bool get(unsigned char& c) override { return read(&c, 1) == 1; }
    bool put(unsigned char c) override { return write(&c, 1) == 1; }
    unsigned long read(unsigned char* to, unsigned long count) override {
        std::size_t const end = std::min(bytes.size(), endsEarlyAt);
        std::size_t const got = std::min({std::size_t(count), mostInOneRead, end > m_at ? end - m_at : 0});
        std::memcpy(to, bytes.data() + m_at, got);
        m_at += got;
        bytesRead += got;
        return got;
    }
    unsigned long write(unsigned char const* from, unsigned long count) override {
        if (readOnly) return 0;
        std::size_t const put = std::min(std::size_t(count), roomToWrite > m_at ? roomToWrite - m_at : 0);
        if (m_at + put > bytes.size()) bytes.resize(m_at + put);
        std::memcpy(bytes.data() + m_at, from, put);
        m_at += put;
        modified = true;
        return put;
    }
    bool close() override { return true; }
    bool CanSeekTell() override { return true; }
    bool CanReportLength() override { return true; }
    bool seek(unsigned long to) override {
        if (to > bytes.size()) return false;
        m_at = to;
        return true;
    }
    unsigned long tell() override { return m_at; }
    unsigned long size() override { return bytes.size(); }
    bool seteof() override { return setsize(m_at); }
    bool setsize(unsigned long size) override {
        bytes.resize(size);
        return true;
    }
    void SetRecommendedBase(eFabric::RecommendedBaseType) override {}
    eFabric::RecommendedBaseType GetRecommendedBase() override { return eFabric::Base_Byte; }
    bool IsReadOnly() override { return readOnly; }
    bool IsModified() override { return modified; }
    void SetReadOnly(bool value) override { readOnly = value; }
    IKORPropertyBag* GetPropertyBag() override { return &bag; }

private:
    std::size_t m_at = 0;
};

struct Released {
    template <class T>
    void operator()(T* object) const {
        object->Release();
    }
};
using ThreadHandle = std::unique_ptr<IScanThread, Released>;
using ObjectHandle = std::unique_ptr<IScanObject, Released>;

}  // namespace policyloader
