#include "dicom/filestream_p.h"

#include "dicom/dcmvalues_p.h"

#include <dcmtk/dcmdata/dcistrma.h>
#include <dcmtk/dcmdata/dcistrmf.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace kestrel::internal {

namespace {

// The file's bytes from a block read at a time. One block holds the header of most files.
class BlockProducer : public DcmProducer
{
public:
    explicit BlockProducer(const QByteArray& name)
    {
        do {
            m_fd = ::open(name.constData(), O_RDONLY | O_CLOEXEC);
        } while (m_fd < 0 && errno == EINTR);
        struct stat info;
        if (m_fd < 0 || ::fstat(m_fd, &info) != 0) {
            m_status = makeOFCondition(OFM_dcmdata, 18, OF_error, std::strerror(errno ? errno : ENOENT));
            return;
        }
        if (S_ISDIR(info.st_mode)) {
            m_status = makeOFCondition(OFM_dcmdata, 18, OF_error, std::strerror(EISDIR));
            return;
        }
        m_size = info.st_size;
    }
    ~BlockProducer() override
    {
        if (m_fd >= 0)
            ::close(m_fd);
    }
    BlockProducer(const BlockProducer&) = delete;
    BlockProducer& operator=(const BlockProducer&) = delete;

    OFBool good() const override { return m_status.good(); }
    OFCondition status() const override { return m_status; }
    OFBool eos() override { return !good() || m_offset >= m_size; }
    offile_off_t avail() override { return good() ? m_size - m_offset : 0; }

    offile_off_t read(void* buf, offile_off_t buflen) override
    {
        if (!good() || buflen <= 0)
            return 0;
        char* out = static_cast<char*>(buf);
        offile_off_t done = 0;
        while (done < buflen && m_offset < m_size) {
            if (m_offset >= m_blockStart && m_offset < m_blockStart + m_blockLength) {
                const offile_off_t n = qMin(buflen - done, m_blockStart + m_blockLength - m_offset);
                std::memcpy(out + done, m_block + (m_offset - m_blockStart), size_t(n));
                done += n;
                m_offset += n;
                continue;
            }
            const offile_off_t want = buflen - done;
            if (want >= offile_off_t(kBlock)) {
                // Large values go straight to their place.
                const ssize_t n = readAt(out + done, size_t(want), m_offset);
                if (n <= 0)
                    break;
                done += n;
                m_offset += n;
                continue;
            }
            const ssize_t n = readAt(m_block, kBlock, m_offset);
            if (n <= 0)
                break;
            m_blockStart = m_offset;
            m_blockLength = n;
        }
        return done;
    }

    offile_off_t skip(offile_off_t skiplen) override
    {
        const offile_off_t n = good() ? qMax<offile_off_t>(0, qMin(skiplen, m_size - m_offset)) : 0;
        m_offset += n;
        return n;
    }

    void putback(offile_off_t num) override
    {
        if (num > m_offset)
            m_status = EC_PutbackFailed;
        else
            m_offset -= num;
    }

private:
    static constexpr size_t kBlock = 8192;

    ssize_t readAt(char* out, size_t length, offile_off_t offset)
    {
        ssize_t n;
        do {
            n = ::pread(m_fd, out, length, off_t(offset));
        } while (n < 0 && errno == EINTR);
        if (n < 0)
            m_status = makeOFCondition(OFM_dcmdata, 18, OF_error, std::strerror(errno));
        return n;
    }

    int m_fd = -1;
    OFCondition m_status = EC_Normal;
    offile_off_t m_size = 0;
    offile_off_t m_offset = 0;
    offile_off_t m_blockStart = 0;
    offile_off_t m_blockLength = 0;
    char m_block[kBlock];
};

class BlockStream : public DcmInputStream
{
public:
    explicit BlockStream(const QByteArray& name)
        : DcmInputStream(&m_producer)
        , m_producer(name)
        , m_name(name)
    {
    }

    // Values left unread are loaded later through DCMTK's own file stream; a compressed (deflated)
    // data set cannot be entered in the middle.
    DcmInputStreamFactory* newFactory() const override
    {
        if (currentProducer() != &m_producer)
            return nullptr;
        return new DcmInputFileStreamFactory(OFFilename(m_name.constData()), tell());
    }

private:
    BlockProducer m_producer;
    QByteArray m_name;
};

} // namespace

OFCondition loadDicomFile(DcmFileFormat& format, const QByteArray& name, Uint32 maxReadLength)
{
    if (name.isEmpty())
        return EC_InvalidFilename;
    return guardedRead([&]() -> OFCondition {
        BlockStream stream(name);
        OFCondition status = stream.status();
        if (status.bad())
            return status;
        status = format.clear();
        if (status.bad())
            return status;
        const E_FileReadMode mode = format.getReadMode();
        format.setReadMode(ERM_autoDetect);
        format.transferInit();
        status = format.read(stream, EXS_Unknown, EGL_noChange, maxReadLength);
        format.transferEnd();
        format.setReadMode(mode);
        return status;
    });
}

} // namespace kestrel::internal
