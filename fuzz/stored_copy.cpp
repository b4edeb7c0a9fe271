// stored_copy IN.xlsx OUT.xlsx [utf16]: copies a zip with every entry stored uncompressed, so
// that the fuzzer's byte mutations land in the XML instead of in deflate streams. With "utf16"
// the XML parts are re-encoded as UTF-16 with a byte-order mark, for the reader's UTF-16 path.
#include <minizip/unzip.h>
#include <minizip/zip.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

namespace {

bool endsWith(const std::string &text, const char *suffix)
{
    const size_t size = std::strlen(suffix);
    return text.size() >= size && text.compare(text.size() - size, size, suffix) == 0;
}

// UTF-8 to UTF-16LE; invalid sequences become U+FFFD.
std::vector<char> toUtf16(const std::vector<char> &utf8)
{
    std::vector<char> out = {'\xFF', '\xFE'};
    auto put = [&](unsigned unit) {
        out.push_back(char(unit & 0xFF));
        out.push_back(char(unit >> 8));
    };
    for (size_t i = 0; i < utf8.size();) {
        const unsigned char lead = static_cast<unsigned char>(utf8[i]);
        const int extra = lead < 0x80 ? 0
                : lead >= 0xF0        ? 3
                : lead >= 0xE0        ? 2
                : lead >= 0xC0        ? 1
                                      : -1;
        unsigned code = extra == 0 ? lead
                : extra == 1       ? lead & 0x1F
                : extra == 2       ? lead & 0x0F
                                   : lead & 0x07;
        bool valid = extra >= 0 && i + size_t(extra) < utf8.size();
        for (int k = 1; valid && k <= extra; ++k) {
            const unsigned char next = static_cast<unsigned char>(utf8[i + size_t(k)]);
            valid = (next & 0xC0) == 0x80;
            code = (code << 6) | (next & 0x3F);
        }
        i += valid ? size_t(extra) + 1 : 1;
        if (!valid || code > 0x10FFFF) {
            put(0xFFFD);
        } else if (code >= 0x10000) {
            put(0xD800 + ((code - 0x10000) >> 10));
            put(0xDC00 + ((code - 0x10000) & 0x3FF));
        } else {
            put(code);
        }
    }
    return out;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc != 3 && !(argc == 4 && std::strcmp(argv[3], "utf16") == 0)) {
        std::fprintf(stderr, "usage: %s IN.xlsx OUT.xlsx [utf16]\n", argv[0]);
        return 2;
    }
    const bool utf16 = argc == 4;
    unzFile in = unzOpen64(argv[1]);
    zipFile out = in ? zipOpen64(argv[2], APPEND_STATUS_CREATE) : nullptr;
    if (!out) {
        std::fprintf(stderr, "cannot open %s or create %s\n", argv[1], argv[2]);
        return 1;
    }
    bool ok = true;
    for (int status = unzGoToFirstFile(in); ok && status == UNZ_OK; status = unzGoToNextFile(in)) {
        char name[1024];
        unz_file_info64 info;
        ok = unzGetCurrentFileInfo64(in, &info, name, sizeof name, nullptr, 0, nullptr, 0) == UNZ_OK
                && unzOpenCurrentFile(in) == UNZ_OK;
        std::vector<char> data;
        char chunk[65536];
        for (int read; ok && (read = unzReadCurrentFile(in, chunk, sizeof chunk)) != 0;) {
            ok = read > 0;
            if (ok)
                data.insert(data.end(), chunk, chunk + read);
        }
        ok = ok && unzCloseCurrentFile(in) == UNZ_OK;
        if (utf16 && (endsWith(name, ".xml") || endsWith(name, ".rels")))
            data = toUtf16(data);
        zip_fileinfo zipInfo = {};
        ok = ok
                && zipOpenNewFileInZip64(out, name, &zipInfo, nullptr, 0, nullptr, 0, nullptr, 0, 0,
                                         0)
                        == ZIP_OK
                && zipWriteInFileInZip(out, data.data(), unsigned(data.size())) == ZIP_OK
                && zipCloseFileInZip(out) == ZIP_OK;
    }
    ok = zipClose(out, nullptr) == ZIP_OK && ok;
    unzClose(in);
    if (!ok)
        std::fprintf(stderr, "cannot copy %s\n", argv[1]);
    return ok ? 0 : 1;
}
