// Creates a reproducible sample VELDV400 database tree for tests and benchmarks.
// Identical arguments give an identical tree (names, sizes, contents, creation
// order) on every platform: sizes come from std::mt19937_64, whose output the
// language fixes, and contents are serialised little-endian explicitly.

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <ftw.h>
#include <numeric>
#include <random>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

const char *const kUsage =
    "usage: make_sample_db [--files N] [--bytes TOTAL] [--depth D] [--seed S] [--folders N]\n"
    "                      [--others N] [--force] OUTDIR\n"
    "  --files N      number of data files, 0..10000000 (default 200)\n"
    "  --bytes TOTAL  exact sum of the data file sizes (default 30000000); a K, M or G\n"
    "                 suffix multiplies by 1024, 1024^2 or 1024^3\n"
    "  --depth D      deepest sub-folder level below OUTDIR, 0..32 (default 3)\n"
    "  --seed S       unsigned 64-bit seed for sizes and contents (default 1)\n"
    "  --folders N    further folders, 0..1000000 (default 0), eight to a parent in a tree\n"
    "                 below OUTDIR (dir_0001..dir_0008, dir_0001/dir_0009, ...); the data\n"
    "                 files and the --others files are dealt over them as well\n"
    "  --others N     further plain files that are not data files, 0..10000000 (default 0):\n"
    "                 extra_0001.txt, extra_0002.qventry.bak, extra_0003.tar.qvindex,\n"
    "                 EXTRA_0004.QVKENTRY, extra_0005.qvkindex~, ...; outside TOTAL\n"
    "  --force        empty a non-empty OUTDIR first instead of refusing\n"
    "Data files have one of the suffixes qventry, qvkentry, qvindex, qvkindex and sit in\n"
    "normal and hidden folders. README.txt, index.qventry.bak, UPPER.QVENTRY,\n"
    "archive.tar.qvindex and the symlink link_to_data.qventry are decoys outside TOTAL.\n"
    "Prints: data_files=<count> data_bytes=<total> dir=<OUTDIR> folders=<count> others=<count>\n"
    "where folders counts every sub-folder of OUTDIR and others every entry that is neither\n"
    "a folder nor a data file, so that the three counts add up to the entries below OUTDIR.\n";

struct IoError {
    std::string path;
    int err;
};

[[noreturn]] void usageError(const std::string &message, bool showUsage = true)
{
    std::fprintf(stderr, "make_sample_db: %s\n%s", message.c_str(), showUsage ? kUsage : "");
    std::exit(2);
}

// Accepts plain decimal digits plus, if allowSuffix, one K/M/G (binary) multiplier.
std::uint64_t parseNumber(const std::string &option, const std::string &text, bool allowSuffix)
{
    std::uint64_t value = 0;
    std::size_t i = 0;
    for (; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i) {
        const unsigned digit = unsigned(text[i] - '0');
        if (value > (UINT64_MAX - digit) / 10)
            usageError(option + ": value too large: " + text);
        value = value * 10 + digit;
    }
    if (i == 0)
        usageError(option + ": expected a number, got '" + text + "'");
    if (i == text.size())
        return value;
    int shift = 0;
    switch (allowSuffix && i + 1 == text.size() ? text[i] : '\0') {
    case 'K': case 'k': shift = 10; break;
    case 'M': case 'm': shift = 20; break;
    case 'G': case 'g': shift = 30; break;
    default: usageError(option + ": unexpected characters in '" + text + "'");
    }
    if (value > (UINT64_MAX >> shift))
        usageError(option + ": value too large: " + text);
    return value << shift;
}

// The decimal number n, zero-padded on the left to width digits.
std::string padded(std::uint64_t n, std::size_t width)
{
    std::string number = std::to_string(n);
    number.insert(0, width - std::min(width, number.size()), '0');
    return number;
}

struct DataFile {
    std::string relPath;
    std::uint64_t size;
};

// Listed parents first, which is also the creation order. The hidden folders
// come early so that even a handful of files, dealt round-robin, reaches them.
std::vector<std::string> folderLayout(unsigned depth)
{
    std::vector<std::string> folders{""};
    if (depth >= 1)
        folders.push_back(".cache");
    std::vector<std::string> level{"group_1", "group_2", "group_3"};
    for (unsigned d = 1; d <= depth; ++d) {
        for (auto &path : level) {
            folders.push_back(path);
            path += "/sub_" + std::to_string(d + 1);
        }
        if (d == 1 && depth >= 2)
            folders.push_back("group_1/.staging");
    }
    return folders;
}

// The --folders tree, parents first: folder k (from 1) sits in folder
// (k - 1) / kFanOut, where 0 stands for OUTDIR itself. A fixed fan-out keeps
// the tree shallow (depth grows with the logarithm of the count) yet branching.
std::vector<std::string> extraFolders(std::uint64_t count)
{
    constexpr std::uint64_t kFanOut = 8;
    const std::size_t width = std::max<std::size_t>(4, std::to_string(count).size());
    std::vector<std::string> paths;
    paths.reserve(count);
    for (std::uint64_t k = 1; k <= count; ++k) {
        const std::uint64_t parent = (k - 1) / kFanOut;
        paths.push_back((parent == 0 ? std::string() : paths[parent - 1] + "/") + "dir_" + padded(k, width));
    }
    return paths;
}

// Weights are skewed towards small files, as in real data sets; every 64th file
// (starting with the 4th) is empty. Flooring each share and then handing the
// remainder out one byte at a time makes the sum exact.
std::vector<std::uint64_t> fileSizes(std::uint64_t count, std::uint64_t total, std::uint64_t seed)
{
    std::mt19937_64 rng(seed);
    std::vector<std::uint64_t> weights(count);
    std::uint64_t weightSum = 0;
    for (std::uint64_t i = 0; i < count; ++i) {
        const std::uint64_t x = rng() >> 48;
        weights[i] = (i % 64 == 3) ? 0 : 1 + ((x * x) >> 16);
        weightSum += weights[i];
    }
    std::vector<std::uint64_t> sizes(count, 0);
    if (weightSum == 0)
        return sizes;
    // total*w/weightSum without 128-bit arithmetic: split total = q*weightSum + r.
    const std::uint64_t q = total / weightSum, r = total % weightSum;
    std::uint64_t assigned = 0;
    for (std::uint64_t i = 0; i < count; ++i) {
        sizes[i] = q * weights[i] + r * weights[i] / weightSum;
        assigned += sizes[i];
    }
    for (std::uint64_t i = 0; assigned < total; ++i)
        if (weights[i] != 0) {
            ++sizes[i];
            ++assigned;
        }
    return sizes;
}

void writeFile(const std::string &path, std::uint64_t size, std::uint64_t streamSeed)
{
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (fd < 0)
        throw IoError{path, errno};
    static std::vector<unsigned char> buffer(std::size_t(1) << 20);
    std::uint64_t state = streamSeed;
    for (std::uint64_t left = size; left > 0;) {
        const std::size_t chunk = std::size_t(std::min<std::uint64_t>(left, buffer.size()));
        for (std::size_t i = 0; i < chunk; i += 8) {
            // splitmix64: fast, and good enough to defeat compression and dedup.
            std::uint64_t z = (state += 0x9E3779B97F4A7C15ull);
            z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
            z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
            z ^= z >> 31;
            for (std::size_t b = 0; b < 8 && i + b < chunk; ++b)
                buffer[i + b] = static_cast<unsigned char>(z >> (8 * b));
        }
        for (std::size_t done = 0; done < chunk;) {
            const ssize_t n = ::write(fd, buffer.data() + done, chunk - done);
            if (n < 0 && errno == EINTR)
                continue;
            if (n < 0) {
                const int e = errno;
                ::close(fd);
                throw IoError{path, e};
            }
            done += std::size_t(n);
        }
        left -= chunk;
    }
    if (::close(fd) != 0)
        throw IoError{path, errno};
}

void writeText(const std::string &path, const std::string &line)
{
    std::string text;
    while (text.size() < 300)
        text += line;
    FILE *f = std::fopen(path.c_str(), "wbx");
    if (!f || std::fwrite(text.data(), 1, text.size(), f) != text.size()) {
        const int e = errno;
        if (f)
            std::fclose(f);
        throw IoError{path, e};
    }
    if (std::fclose(f) != 0)
        throw IoError{path, errno};
}

std::string g_failedPath; // nftw callbacks cannot carry state of their own

// Post-order, no symlink following, no crossing into other file systems; the
// top folder itself (level 0) is kept.
int removeEntry(const char *path, const struct stat *, int type, struct FTW *ftw)
{
    if (ftw->level == 0)
        return 0;
    const bool isDir = type == FTW_DP || type == FTW_DNR;
    if ((isDir ? ::rmdir(path) : ::unlink(path)) == 0)
        return 0;
    g_failedPath = path;
    return errno;
}

std::string join(const std::string &dir, const std::string &rel)
{
    return rel.empty() ? dir : dir.empty() ? rel : dir + "/" + rel;
}

} // namespace

int main(int argc, char **argv)
{
    std::uint64_t files = 200, total = 30000000, depth = 3, seed = 1, extraDirs = 0, others = 0;
    bool force = false;
    std::string outDir;
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i], value;
        const std::size_t eq = arg.find('=');
        if (arg.rfind("--", 0) == 0 && eq != std::string::npos) {
            value = arg.substr(eq + 1);
            arg.resize(eq);
        } else if (arg == "--files" || arg == "--bytes" || arg == "--depth" || arg == "--seed" || arg == "--folders"
                   || arg == "--others") {
            if (i + 1 >= argc)
                usageError(arg + " needs a value");
            value = argv[++i];
        }
        if (arg == "--help" || arg == "-h") {
            std::fputs(kUsage, stdout);
            return 0;
        } else if (arg == "--force") {
            force = true;
        } else if (arg == "--files") {
            files = parseNumber(arg, value, false);
        } else if (arg == "--bytes") {
            total = parseNumber(arg, value, true);
        } else if (arg == "--depth") {
            depth = parseNumber(arg, value, false);
        } else if (arg == "--seed") {
            seed = parseNumber(arg, value, false);
        } else if (arg == "--folders") {
            extraDirs = parseNumber(arg, value, false);
        } else if (arg == "--others") {
            others = parseNumber(arg, value, false);
        } else if (arg.size() > 1 && arg[0] == '-') {
            usageError("unknown option " + arg);
        } else if (outDir.empty() && !arg.empty()) {
            outDir = arg;
        } else {
            usageError("exactly one OUTDIR expected");
        }
    }
    if (outDir.empty())
        usageError("OUTDIR missing");
    if (files > 10000000)
        usageError("--files must be at most 10000000");
    if (depth > 32)
        usageError("--depth must be at most 32");
    if (extraDirs > 1000000)
        usageError("--folders must be at most 1000000");
    if (others > 10000000)
        usageError("--others must be at most 10000000");
    if (files == 0 && total != 0)
        usageError("--bytes must be 0 when --files is 0");

    std::uint64_t dataCount = 0, dataBytes = 0, folderCount = 0, otherCount = 0;
    try {
        struct stat st;
        if (::lstat(outDir.c_str(), &st) == 0) {
            if (S_ISLNK(st.st_mode))
                usageError(outDir + " is a symbolic link; give the real folder", false);
            if (!S_ISDIR(st.st_mode))
                usageError(outDir + " exists and is not a folder", false);
            std::error_code ec;
            const bool empty = std::filesystem::is_empty(outDir, ec);
            if (ec)
                throw IoError{outDir, ec.value()};
            if (!empty && !force)
                usageError(outDir + " is not empty; use --force to replace its contents", false);
            if (!empty) {
                const int rc = ::nftw(outDir.c_str(), removeEntry, 32, FTW_DEPTH | FTW_PHYS | FTW_MOUNT);
                if (rc != 0)
                    throw IoError{rc > 0 ? g_failedPath : outDir, rc > 0 ? rc : errno};
                // Anything left lives on another file system mounted inside OUTDIR.
                if (!std::filesystem::is_empty(outDir, ec) || ec)
                    throw IoError{outDir, ec ? ec.value() : ENOTEMPTY};
            }
        } else if (errno != ENOENT) {
            throw IoError{outDir, errno};
        }
        std::error_code ec;
        std::filesystem::create_directories(outDir, ec);
        if (ec)
            throw IoError{outDir, ec.value()};

        std::vector<std::string> folders = folderLayout(unsigned(depth));
        for (auto &folder : extraFolders(extraDirs))
            folders.push_back(std::move(folder));
        for (const auto &folder : folders) {
            if (folder.empty())
                continue;
            if (::mkdir(join(outDir, folder).c_str(), 0755) != 0)
                throw IoError{join(outDir, folder), errno};
            ++folderCount;
        }

        static const char *const suffixes[] = {"qventry", "qvkentry", "qvindex", "qvkindex"};
        const std::size_t width = std::max<std::size_t>(4, std::to_string(files).size());
        const std::vector<std::uint64_t> sizes = fileSizes(files, total, seed);
        std::vector<DataFile> data;
        for (std::uint64_t i = 0; i < files; ++i) {
            const std::string number = padded(i + 1, width);
            // Files are dealt round-robin over the folders and suffixes. Once both
            // cycles realign the suffix cycle is shifted by one, so each folder
            // gets every suffix even when the folder count shares a factor with 4.
            const std::uint64_t shift = i / std::lcm<std::uint64_t>(folders.size(), 4);
            const std::string name = "spectra_" + number + "." + suffixes[(i + shift) % 4];
            data.push_back({join(folders[i % folders.size()], name), sizes[i]});
            const std::uint64_t streamSeed = seed ^ ((i + 1) * 0xD1B54A32D192ED03ull);
            writeFile(join(outDir, data.back().relPath), sizes[i], streamSeed);
            ++dataCount;
            dataBytes += sizes[i];
        }

        // Names a scanner must reject, some of them one character away from a data name.
        static const struct { const char *prefix, *suffix; } otherNames[] = {
            {"extra_", ".txt"}, {"extra_", ".qventry.bak"}, {"extra_", ".tar.qvindex"},
            {"EXTRA_", ".QVKENTRY"}, {"extra_", ".qvkindex~"}};
        const std::size_t otherWidth = std::max<std::size_t>(4, std::to_string(others).size());
        for (std::uint64_t j = 0; j < others; ++j) {
            // Shifted like the data suffixes, so each folder gets every kind.
            const auto &kind = otherNames[(j + j / std::lcm<std::uint64_t>(folders.size(), 5)) % 5];
            const std::string name = kind.prefix + padded(j + 1, otherWidth) + kind.suffix;
            writeText(join(outDir, join(folders[j % folders.size()], name)), "plain file, not a data file\n");
            ++otherCount;
        }

        const std::string sub = depth >= 1 ? "group_1/" : "", hidden = depth >= 1 ? ".cache/" : "";
        writeText(join(outDir, "README.txt"), "Sample VELDV400 tree made by make_sample_db; not a data file.\n");
        writeText(join(outDir, "index.qventry.bak"), "backup copy, complete suffix qventry.bak\n");
        writeText(join(outDir, sub + "UPPER.QVENTRY"), "upper-case suffix does not match\n");
        writeText(join(outDir, hidden + "archive.tar.qvindex"), "complete suffix tar.qvindex\n");
        otherCount += 4;
        if (!data.empty()) {
            // Pointing at the largest file makes a counted link show up in the byte total.
            const DataFile *target = &data.front();
            for (const auto &d : data)
                if (d.size > target->size)
                    target = &d;
            const std::string link = join(outDir, "link_to_data.qventry");
            if (::symlink(target->relPath.c_str(), link.c_str()) != 0)
                throw IoError{link, errno};
            ++otherCount;
        }
    } catch (const IoError &e) {
        std::fprintf(stderr, "make_sample_db: %s: %s\n", e.path.c_str(), std::strerror(e.err));
        return 1;
    }
    std::printf("data_files=%llu data_bytes=%llu dir=%s folders=%llu others=%llu\n",
                static_cast<unsigned long long>(dataCount), static_cast<unsigned long long>(dataBytes), outDir.c_str(),
                static_cast<unsigned long long>(folderCount), static_cast<unsigned long long>(otherCount));
    return 0;
}
