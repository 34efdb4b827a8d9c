#include "lists.h"

#include <curl/curl.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "paths.h"
#include "stats.h"

namespace fs = std::filesystem;

namespace {

constexpr char kUsage[] =
    "usage: vxproxy lists update [--filters DIR] [--data DIR] [--timeout SECONDS] [URL...]\n"
    "       vxproxy lists status [--filters DIR] [--data DIR] [--logs DIR]\n";

// EasyList's files in the order of the published list. The order matters to
// the loader: its ad-server section runs from easylist_adservers.txt to
// easylist_thirdparty.txt, so the adult ad servers in between belong to it.
constexpr char kEasyListBase[] = "https://raw.githubusercontent.com/easylist/easylist/master/";
constexpr const char* kEasyListFiles[] = {
    "easylist/easylist_general_block.txt",
    "easylist/easylist_general_block_dimensions.txt",
    "easylist/easylist_general_block_popup.txt",
    "easylist/easylist_general_hide.txt",
    "easylist/easylist_allowlist_general_hide.txt",
    "easylist/easylist_adservers.txt",
    "easylist/easylist_adservers_popup.txt",
    "easylist_adult/adult_adservers.txt",
    "easylist_adult/adult_adservers_popup.txt",
    "easylist/easylist_thirdparty.txt",
    "easylist/easylist_thirdparty_popup.txt",
    "easylist_adult/adult_thirdparty.txt",
    "easylist_adult/adult_thirdparty_popup.txt",
    "easylist/easylist_specific_block.txt",
    "easylist/easylist_specific_block_popup.txt",
    "easylist_adult/adult_specific_block.txt",
    "easylist_adult/adult_specific_block_popup.txt",
    "easylist/easylist_specific_hide.txt",
    "easylist/easylist_specific_hide_abp.txt",
    "easylist_adult/adult_specific_hide.txt",
    "easylist/easylist_allowlist.txt",
    "easylist/easylist_allowlist_dimensions.txt",
    "easylist/easylist_allowlist_popup.txt",
    "easylist_adult/adult_allowlist.txt",
    "easylist_adult/adult_allowlist_popup.txt",
};

constexpr long kDefaultTimeoutSeconds = 120;
constexpr long kConnectTimeoutSeconds = 20;
// A list this large is not a filter list; the download stops there.
constexpr std::size_t kMaxListBytes = 64u << 20;
constexpr char kStateName[] = "lists.ini";
constexpr char kCacheName[] = "lists";

struct Options {
  std::string command;  // "update" or "status"
  std::string filters;
  std::string data;
  std::string logs;  // status: where the running proxy's proxy.log is
  long timeout = kDefaultTimeoutSeconds;
  std::vector<std::string> urls;
};

// ---------------------------------------------------------------- text

bool StartsWithNoCase(std::string_view text, std::string_view prefix) {
  if (text.size() < prefix.size()) return false;
  for (std::size_t i = 0; i < prefix.size(); ++i) {
    const auto a = static_cast<unsigned char>(text[i]);
    const auto b = static_cast<unsigned char>(prefix[i]);
    if (std::tolower(a) != std::tolower(b)) return false;
  }
  return true;
}

std::string_view Trim(std::string_view text) {
  const char* const space = " \t\r\n";
  const std::size_t first = text.find_first_not_of(space);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(space) - first + 1);
}

// Calls line(text) for every line, without its line end ("\n" or "\r\n").
template <typename F>
void ForEachLine(std::string_view text, F line) {
  while (!text.empty()) {
    const std::size_t end = text.find('\n');
    std::string_view piece = text.substr(0, end);
    if (!piece.empty() && piece.back() == '\r') piece.remove_suffix(1);
    line(piece);
    if (end == std::string_view::npos) break;
    text.remove_prefix(end + 1);
  }
}

// "[Adblock Plus 2.0]" and the like: a list's own header line.
bool IsHeaderLine(std::string_view line) {
  line = Trim(line);
  return line.size() >= 2 && line.front() == '[' && line.back() == ']';
}

bool IsRule(std::string_view line) {
  line = Trim(line);
  return !line.empty() && line.front() != '!' && !IsHeaderLine(line);
}

std::size_t CountRules(std::string_view text) {
  std::size_t rules = 0;
  ForEachLine(text, [&](std::string_view line) { rules += IsRule(line); });
  return rules;
}

// "! Version: ...", "! Title: ..." and the like describe the list they
// stand in, not the joined file.
bool IsListMetaLine(std::string_view line) {
  if (line.empty() || line.front() != '!') return false;
  line = Trim(line.substr(1));
  for (std::string_view key : {"version", "checksum", "title", "last modified", "expires"}) {
    if (StartsWithNoCase(line, key) && Trim(line.substr(key.size())).substr(0, 1) == ":") {
      return true;
    }
  }
  return false;
}

std::string_view WithoutByteOrderMark(std::string_view text) {
  if (text.substr(0, 3) == "\xEF\xBB\xBF") text.remove_prefix(3);
  return text;
}

// A list's lines as they go into filters.txt: "\n" line ends, no byte-order
// mark, none of its own header lines before the first rule, and none of its
// Version, Title, ... lines (filters.txt has one Version line of its own).
std::string ListLines(std::string_view raw) {
  std::string out;
  out.reserve(raw.size() + 1);
  bool beforeFirstRule = true;
  ForEachLine(WithoutByteOrderMark(raw), [&](std::string_view line) {
    if (beforeFirstRule && IsHeaderLine(line)) return;
    if (IsListMetaLine(line)) return;
    if (IsRule(line)) beforeFirstRule = false;
    out.append(line);
    out.push_back('\n');
  });
  return out;
}

std::string Rules(std::size_t count) {
  return std::to_string(count) + (count == 1 ? " rule" : " rules");
}

std::string LocalDate(std::int64_t seconds) {
  if (seconds <= 0) return "never";
  const std::time_t t = static_cast<std::time_t>(seconds);
  std::tm local{};
  char text[64];
  if (localtime_r(&t, &local) == nullptr ||
      std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local) == 0) {
    return std::to_string(seconds);
  }
  return text;
}

std::string UtcDate(std::int64_t seconds, const char* format) {
  const std::time_t t = static_cast<std::time_t>(seconds);
  std::tm utc{};
  char text[64];
  if (gmtime_r(&t, &utc) == nullptr || std::strftime(text, sizeof text, format, &utc) == 0) {
    return std::to_string(seconds);
  }
  return text;
}

std::int64_t Now() { return static_cast<std::int64_t>(std::time(nullptr)); }

// ---------------------------------------------------------------- URLs

bool IsHttpUrl(std::string_view url) {
  for (std::string_view scheme : {"http://", "https://"}) {
    if (StartsWithNoCase(url, scheme) && url.size() > scheme.size()) return true;
  }
  return false;
}

// "folder/file" of a list's URL as its marker line names it: the last two
// path segments, the folder being "easylist" unless the URL's own folder is
// one of EasyList's ("easylist", "easylist_adult", ...).
std::string ListName(std::string_view url) {
  std::string_view rest = url.substr(url.find("://") + 3);
  rest = rest.substr(0, rest.find_first_of("?#"));
  const std::size_t slash = rest.find('/');
  std::string_view path = slash == std::string_view::npos ? std::string_view() : rest.substr(slash);
  while (!path.empty() && path.back() == '/') path.remove_suffix(1);
  const std::size_t last = path.rfind('/');
  std::string_view file = last == std::string_view::npos ? path : path.substr(last + 1);
  std::string_view folder;
  if (last != std::string_view::npos && last > 0) {
    folder = path.substr(0, last);
    folder = folder.substr(folder.rfind('/') + 1);
  }
  if (!StartsWithNoCase(folder, "easylist")) folder = "easylist";
  if (file.empty()) file = "list.txt";
  return std::string(folder) + "/" + std::string(file);
}

std::string MarkerLine(std::string_view url) {
  return "! *** easylist:" + ListName(url) + " ***";
}

// The cache file of a list: its file name's stem (safe characters only) and
// a hash of the whole URL, so two lists with one file name do not meet.
std::string CacheFileName(std::string_view url) {
  std::uint64_t hash = 1469598103934665603ull;
  for (char c : url) {
    hash ^= static_cast<unsigned char>(c);
    hash *= 1099511628211ull;
  }
  std::string name = ListName(url);
  name = name.substr(name.find('/') + 1);
  if (name.size() > 4 && name.compare(name.size() - 4, 4, ".txt") == 0) {
    name.resize(name.size() - 4);
  }
  for (char& c : name) {
    if (!std::isalnum(static_cast<unsigned char>(c)) && c != '-' && c != '_' && c != '.') c = '_';
  }
  if (name.size() > 64) name.resize(64);
  if (name.empty() || name[0] == '.') name.insert(0, "list");
  char suffix[24];
  std::snprintf(suffix, sizeof suffix, "-%08x.txt", static_cast<unsigned>(hash ^ (hash >> 32)));
  return name + suffix;
}

// ---------------------------------------------------------------- files

bool ReadWholeFile(const fs::path& path, std::string* text) {
  std::string problem;
  return vxhost::ReadWholeFile(path.string(), true, text, &problem);
}

bool WriteFileAtomically(const fs::path& path, const std::string& data, std::string* error) {
  std::string problem;
  if (vxhost::WriteFileAtomically(path.string(), data, &problem)) return true;
  *error = "cannot write " + path.string() + ": " + problem;
  return false;
}

std::int64_t ModificationTime(const fs::path& path) {
  struct stat info{};
  return stat(path.c_str(), &info) == 0 ? static_cast<std::int64_t>(info.st_mtime) : 0;
}

struct Folder {
  explicit Folder(const Options& options)
      : dir(!options.filters.empty() ? options.filters
            : !options.data.empty()  ? options.data
                                     : vxhost::DefaultDataFolder()),
        filters(dir / "filters.txt"),
        cache(dir / kCacheName),
        state(dir / kStateName) {}
  fs::path dir, filters, cache, state;
};

// Held while an update runs, so two updates never mix their files.
class UpdateLock {
 public:
  ~UpdateLock() {
    if (fd_ >= 0) close(fd_);
  }
  bool Acquire(const fs::path& path) {
    fd_ = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    return fd_ >= 0 && flock(fd_, LOCK_EX | LOCK_NB) == 0;
  }

 private:
  int fd_ = -1;
};

// ---------------------------------------------------------------- state

// What lists.ini remembers of one list.
struct ListState {
  std::string url;
  std::string cache;  // file name in lists/
  std::string etag;
  std::string lastModified;
  std::int64_t downloaded = 0;  // last 200
  std::int64_t changed = 0;     // the cached copy last changed
  std::int64_t checked = 0;     // last 200 or 304
  bool joined = false;          // part of filters.txt as it stands
};

// lists.ini: a "[list]" line opens each list, "key=value" lines follow;
// lists appear in the order filters.txt joins them.
std::vector<ListState> ParseState(std::string_view text) {
  std::vector<ListState> lists;
  ForEachLine(text, [&](std::string_view line) {
    line = Trim(line);
    if (line == "[list]") {
      lists.emplace_back();
      return;
    }
    const std::size_t equals = line.find('=');
    if (lists.empty() || line.empty() || line[0] == '#' || equals == std::string_view::npos) return;
    const std::string_view key = Trim(line.substr(0, equals));
    const std::string value(Trim(line.substr(equals + 1)));
    ListState& list = lists.back();
    const auto number = [&] {
      return static_cast<std::int64_t>(std::strtoll(value.c_str(), nullptr, 10));
    };
    if (key == "url") list.url = value;
    else if (key == "cache") list.cache = value;
    else if (key == "etag") list.etag = value;
    else if (key == "last-modified") list.lastModified = value;
    else if (key == "downloaded") list.downloaded = number();
    else if (key == "changed") list.changed = number();
    else if (key == "checked") list.checked = number();
    else if (key == "joined") list.joined = value == "1";
  });
  // A list without a URL or a cache name that is a plain file name is not ours.
  std::erase_if(lists, [](const ListState& list) {
    return list.url.empty() || list.cache.empty() || list.cache.find('/') != std::string::npos ||
           list.cache[0] == '.';
  });
  return lists;
}

std::string FormatState(const std::vector<ListState>& lists) {
  std::string text =
      "# Written by \"vxproxy lists update\": the lists filters.txt is joined from, in\n"
      "# order, and what the last update learnt about each. Times are Unix seconds.\n";
  for (const ListState& list : lists) {
    text += "\n[list]\nurl=" + list.url + "\ncache=" + list.cache + "\netag=" + list.etag +
            "\nlast-modified=" + list.lastModified + "\ndownloaded=" +
            std::to_string(list.downloaded) + "\nchanged=" + std::to_string(list.changed) +
            "\nchecked=" + std::to_string(list.checked) + "\njoined=" + (list.joined ? "1" : "0") +
            "\n";
  }
  return text;
}

// ---------------------------------------------------------------- progress

// One bar on stderr while a list downloads, when stderr is a terminal.
class Progress {
 public:
  Progress() {
    const char* term = std::getenv("TERM");
    enabled_ = isatty(STDERR_FILENO) == 1 && !(term != nullptr && std::strcmp(term, "dumb") == 0);
  }
  bool enabled() const { return enabled_; }

  void Start(const std::string& label) {
    label_ = label;
    lastDraw_ = {};
    Draw(0, 0);
  }

  void Update(std::int64_t now, std::int64_t total) {
    const auto time = std::chrono::steady_clock::now();
    if (time - lastDraw_ < std::chrono::milliseconds(100)) return;
    lastDraw_ = time;
    Draw(now, total);
  }

  // Erases the bar before a line is printed.
  void Clear() {
    if (!shown_) return;
    std::fputs("\r\033[K", stderr);
    std::fflush(stderr);
    shown_ = false;
  }

 private:
  void Draw(std::int64_t now, std::int64_t total) {
    if (!enabled_) return;
    std::string line = "\r" + label_ + "  ";
    if (total > 0) {
      constexpr int kWidth = 24;
      const int filled = static_cast<int>(std::min<std::int64_t>(kWidth, now * kWidth / total));
      line += "[" + std::string(filled, '#') + std::string(kWidth - filled, '-') + "]  " +
              HumanSize(static_cast<std::uint64_t>(now)) + " / " +
              HumanSize(static_cast<std::uint64_t>(total));
    } else {
      line += HumanSize(static_cast<std::uint64_t>(now));
    }
    line += "\033[K";
    std::fputs(line.c_str(), stderr);
    std::fflush(stderr);
    shown_ = true;
  }

  bool enabled_ = false;
  bool shown_ = false;
  std::string label_;
  std::chrono::steady_clock::time_point lastDraw_{};
};

// ---------------------------------------------------------------- downloads

struct Reply {
  enum class Kind { kBody, kNotModified, kFailed };
  Kind kind = Kind::kFailed;
  std::string body;
  std::string etag;
  std::string lastModified;
  std::string error;  // for kFailed: curl's message or the HTTP status
};

// One curl handle for all lists, so the connection to a server is reused.
class Downloader {
 public:
  Downloader(long timeoutSeconds, Progress* progress) : progress_(progress) {
    curl_ = curl_easy_init();
    if (curl_ == nullptr) return;
    const curl_version_info_data* version = curl_version_info(CURLVERSION_NOW);
    userAgent_ = std::string("vxproxy (filter lists update) libcurl/") +
                 (version != nullptr ? version->version : LIBCURL_VERSION);
    curl_easy_setopt(curl_, CURLOPT_USERAGENT, userAgent_.c_str());
    curl_easy_setopt(curl_, CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(curl_, CURLOPT_MAXREDIRS, 10L);
    curl_easy_setopt(curl_, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(curl_, CURLOPT_CONNECTTIMEOUT,
                     std::min(timeoutSeconds, kConnectTimeoutSeconds));
    curl_easy_setopt(curl_, CURLOPT_TIMEOUT, timeoutSeconds);
    curl_easy_setopt(curl_, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl_, CURLOPT_ACCEPT_ENCODING, "");  // whatever curl can decode
    curl_easy_setopt(curl_, CURLOPT_ERRORBUFFER, errorText_);
    curl_easy_setopt(curl_, CURLOPT_WRITEFUNCTION, &Downloader::OnBody);
    curl_easy_setopt(curl_, CURLOPT_HEADERFUNCTION, &Downloader::OnHeader);
    if (progress_->enabled()) {
      curl_easy_setopt(curl_, CURLOPT_NOPROGRESS, 0L);
      curl_easy_setopt(curl_, CURLOPT_XFERINFOFUNCTION, &Downloader::OnProgress);
      curl_easy_setopt(curl_, CURLOPT_XFERINFODATA, progress_);
    }
  }
  ~Downloader() {
    if (curl_ != nullptr) curl_easy_cleanup(curl_);
  }
  Downloader(const Downloader&) = delete;
  Downloader& operator=(const Downloader&) = delete;

  bool ok() const { return curl_ != nullptr; }

  // GET url; with a validator of the copy kept, a 304 is asked for.
  Reply Fetch(const std::string& url, const std::string& etag, const std::string& lastModified) {
    Transfer transfer;
    curl_slist* fields = nullptr;
    if (!etag.empty()) fields = curl_slist_append(fields, ("If-None-Match: " + etag).c_str());
    if (!lastModified.empty()) {
      fields = curl_slist_append(fields, ("If-Modified-Since: " + lastModified).c_str());
    }
    const bool conditional = fields != nullptr;
    // Redirects from https stay on https.
    curl_easy_setopt(curl_, CURLOPT_REDIR_PROTOCOLS_STR,
                     StartsWithNoCase(url, "https://") ? "https" : "http,https");
    curl_easy_setopt(curl_, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl_, CURLOPT_HTTPHEADER, fields);
    curl_easy_setopt(curl_, CURLOPT_WRITEDATA, &transfer);
    curl_easy_setopt(curl_, CURLOPT_HEADERDATA, &transfer);
    errorText_[0] = '\0';
    const CURLcode code = curl_easy_perform(curl_);
    curl_easy_setopt(curl_, CURLOPT_HTTPHEADER, nullptr);
    curl_slist_free_all(fields);

    Reply& reply = transfer.reply;
    if (code != CURLE_OK) {
      reply.kind = Reply::Kind::kFailed;
      if (transfer.tooLarge) {
        reply.error = "the list is larger than " + HumanSize(kMaxListBytes);
      } else {
        reply.error = curl_easy_strerror(code);
        if (errorText_[0] != '\0' && reply.error != errorText_) {
          reply.error += std::string(" (") + errorText_ + ")";
        }
      }
      return reply;
    }
    long status = 0;
    curl_easy_getinfo(curl_, CURLINFO_RESPONSE_CODE, &status);
    if (status == 304 && conditional) {
      reply.kind = Reply::Kind::kNotModified;
      return reply;
    }
    reply.kind = Reply::Kind::kFailed;
    if (status != 200) {
      reply.error = "HTTP " + (transfer.status.empty() ? std::to_string(status) : transfer.status);
      if (status == 304) reply.error += " although nothing was asked conditionally";
      return reply;
    }
    curl_off_t expected = -1, received = 0;
    curl_easy_getinfo(curl_, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &expected);
    curl_easy_getinfo(curl_, CURLINFO_SIZE_DOWNLOAD_T, &received);
    // curl itself fails a counted body that ends early; this catches the
    // rest. Under a content coding the two counts need not be comparable.
    if (!transfer.encoded && expected >= 0 && received != expected) {
      reply.error = "received " + std::to_string(received) + " of " + std::to_string(expected) +
                    " bytes (Content-Length)";
      return reply;
    }
    const std::string_view text = Trim(WithoutByteOrderMark(reply.body));
    if (text.empty()) {
      reply.error = "the reply is empty";
    } else if (text.front() == '<') {
      reply.error = "the reply is an HTML or XML page, not a filter list";
    } else {
      reply.kind = Reply::Kind::kBody;
    }
    return reply;
  }

 private:
  struct Transfer {
    Reply reply;
    std::string status;  // "500 Internal Server Error" of the last status line
    bool encoded = false;  // the last response had a Content-Encoding
    bool tooLarge = false;
  };

  static size_t OnBody(char* data, size_t size, size_t count, void* context) {
    auto* transfer = static_cast<Transfer*>(context);
    const size_t bytes = size * count;
    if (transfer->reply.body.size() + bytes > kMaxListBytes) {
      transfer->tooLarge = true;
      return 0;
    }
    transfer->reply.body.append(data, bytes);
    return bytes;
  }

  static size_t OnHeader(char* data, size_t size, size_t count, void* context) {
    auto* transfer = static_cast<Transfer*>(context);
    const std::string_view line = Trim(std::string_view(data, size * count));
    if (StartsWithNoCase(line, "HTTP/")) {
      // Each response of a redirect chain starts over.
      const std::size_t space = line.find(' ');
      transfer->status =
          space == std::string_view::npos ? "" : std::string(Trim(line.substr(space)));
      transfer->reply.etag.clear();
      transfer->reply.lastModified.clear();
      transfer->encoded = false;
    } else if (StartsWithNoCase(line, "etag:")) {
      transfer->reply.etag = Trim(line.substr(5));
    } else if (StartsWithNoCase(line, "last-modified:")) {
      transfer->reply.lastModified = Trim(line.substr(14));
    } else if (StartsWithNoCase(line, "content-encoding:")) {
      transfer->encoded = Trim(line.substr(17)) != "identity";
    }
    return size * count;
  }

  static int OnProgress(void* context, curl_off_t total, curl_off_t now, curl_off_t, curl_off_t) {
    static_cast<Progress*>(context)->Update(now, total);
    return 0;
  }

  CURL* curl_ = nullptr;
  Progress* progress_;
  std::string userAgent_;
  char errorText_[CURL_ERROR_SIZE] = {};
};

class CurlLibrary {
 public:
  CurlLibrary() : ok_(curl_global_init(CURL_GLOBAL_DEFAULT) == CURLE_OK) {}
  ~CurlLibrary() {
    if (ok_) curl_global_cleanup();
  }
  bool ok() const { return ok_; }

 private:
  bool ok_;
};

// ---------------------------------------------------------------- update

struct ListText {
  std::string url;
  std::string raw;
};

// filters.txt in the loader's joined form. The Version and date are those
// of the newest change among the lists, so joining the same lists again
// gives the same bytes.
std::string JoinLists(const std::vector<ListText>& lists, std::int64_t changed) {
  std::string text = "! Version: " + UtcDate(changed, "%Y%m%d%H%M") + "\n" +
                     "! Title: VxProxy filters, " + std::to_string(lists.size()) +
                     " lists joined by \"vxproxy lists update\"\n" +
                     "! Last modified: " + UtcDate(changed, "%d %b %Y %H:%M UTC") + "\n";
  for (const ListText& list : lists) {
    text += MarkerLine(list.url);
    text += '\n';
    text += ListLines(list.raw);
  }
  return text;
}

std::vector<std::string> DefaultUrls() {
  std::vector<std::string> urls;
  for (const char* file : kEasyListFiles) urls.push_back(std::string(kEasyListBase) + file);
  return urls;
}

void Fail(const std::string& message) {
  std::fprintf(stderr, "vxproxy lists: %s\n", message.c_str());
}

bool FolderKnown(const Folder& folder) {
  if (!folder.dir.empty()) return true;
  Fail("neither XDG_DATA_HOME nor HOME names a folder; pass --filters DIR");
  return false;
}

int Update(const Options& options) {
  const Folder folder(options);
  if (!FolderKnown(folder)) return 1;
  std::string problem;
  if (!vxhost::PrepareFolder(folder.cache.string(), &problem)) {
    Fail("cannot use " + folder.cache.string() + ": " + problem);
    return 1;
  }
  UpdateLock lock;
  if (!lock.Acquire(folder.cache / ".lock")) {
    Fail("another \"vxproxy lists update\" is working in " + folder.dir.string());
    return 1;
  }
  CurlLibrary library;
  Progress progress;
  Downloader downloader(options.timeout, &progress);
  if (!library.ok() || !downloader.ok()) {
    Fail("cannot set up libcurl");
    return 1;
  }

  std::string stateText;
  std::vector<ListState> state;
  if (ReadWholeFile(folder.state, &stateText)) state = ParseState(stateText);
  const std::vector<std::string> urls = options.urls.empty() ? DefaultUrls() : options.urls;
  const std::int64_t now = Now();

  std::vector<ListText> texts;
  std::vector<ListState> fetched;  // in the order of urls, those that arrived
  std::size_t failures = 0;
  for (std::size_t i = 0; i < urls.size(); ++i) {
    const std::string& url = urls[i];
    const auto known = std::find_if(state.begin(), state.end(),
                                    [&](const ListState& s) { return s.url == url; });
    ListState list = known != state.end() ? *known : ListState{};
    list.url = url;
    if (list.cache.empty()) list.cache = CacheFileName(url);
    const fs::path cachePath = folder.cache / list.cache;
    std::string previous;
    const bool havePrevious = ReadWholeFile(cachePath, &previous);
    if (!havePrevious) {
      list.etag.clear();
      list.lastModified.clear();
    }

    char counter[32];
    const int width = static_cast<int>(std::to_string(urls.size()).size());
    std::snprintf(counter, sizeof counter, "[%*zu/%zu] ", width, i + 1, urls.size());
    const std::string label = counter + ListName(url);
    progress.Start(label);
    Reply reply = downloader.Fetch(url, list.etag, list.lastModified);
    progress.Clear();

    std::string outcome;
    if (reply.kind == Reply::Kind::kFailed) {
      std::printf("%s: failed\n", label.c_str());
      std::fflush(stdout);
      Fail("cannot download " + url + ": " + reply.error);
      ++failures;
      continue;
    }
    if (reply.kind == Reply::Kind::kNotModified) {
      // A 304 may bring fresher validators.
      if (!reply.etag.empty()) list.etag = reply.etag;
      if (!reply.lastModified.empty()) list.lastModified = reply.lastModified;
      reply.body = std::move(previous);
      outcome = "not modified";
    } else {
      if (!havePrevious || reply.body != previous) {
        std::string writeError;
        if (!WriteFileAtomically(cachePath, reply.body, &writeError)) {
          std::printf("%s: failed\n", label.c_str());
          std::fflush(stdout);
          Fail(writeError);
          ++failures;
          continue;
        }
        list.changed = now;
        outcome = havePrevious ? "changed" : "new";
      } else {
        outcome = "unchanged";
      }
      list.etag = reply.etag;
      list.lastModified = reply.lastModified;
      list.downloaded = now;
      outcome += ", " + HumanSize(reply.body.size());
    }
    list.checked = now;
    outcome += ", " + Rules(CountRules(reply.body));
    std::printf("%s: %s\n", label.c_str(), outcome.c_str());
    std::fflush(stdout);
    texts.push_back({url, std::move(reply.body)});
    fetched.push_back(std::move(list));
  }

  std::string stateError;
  if (failures > 0) {
    // What did arrive is kept (cached copies and validators), filters.txt is not touched.
    for (ListState& list : fetched) {
      const auto known = std::find_if(state.begin(), state.end(),
                                      [&](const ListState& s) { return s.url == list.url; });
      if (known != state.end()) {
        list.joined = known->joined;
        *known = std::move(list);
      } else {
        state.push_back(std::move(list));
      }
    }
    if (!WriteFileAtomically(folder.state, FormatState(state), &stateError)) Fail(stateError);
    Fail(std::to_string(failures) + " of " + std::to_string(urls.size()) + " lists failed; " +
         folder.filters.string() + " is left as it was");
    return 1;
  }

  std::int64_t changed = 0;
  for (ListState& list : fetched) {
    changed = std::max(changed, list.changed);
    list.joined = true;
  }
  if (changed == 0) changed = now;
  const std::string joined = JoinLists(texts, changed);
  const std::size_t rules = CountRules(joined);
  if (rules == 0) {
    Fail("the lists hold no rules; " + folder.filters.string() + " is left as it was");
    return 1;
  }
  std::string current;
  const bool same = ReadWholeFile(folder.filters, &current) && current == joined;
  std::string writeError;
  if (!same && !WriteFileAtomically(folder.filters, joined, &writeError)) {
    Fail(writeError + "; the filters in use are left as they were");
    return 1;
  }
  if (!WriteFileAtomically(folder.state, FormatState(fetched), &stateError)) {
    Fail(stateError);
    return 1;
  }
  // Copies of lists no longer joined go.
  std::set<std::string> keep;
  for (const ListState& list : fetched) keep.insert(list.cache);
  for (const ListState& list : state) {
    std::error_code ignored;
    if (keep.count(list.cache) == 0) fs::remove(folder.cache / list.cache, ignored);
  }

  if (same) {
    std::printf("%s is up to date: %zu lists, %zu rules\n", folder.filters.c_str(), texts.size(),
                rules);
  } else {
    std::printf("wrote %s: %zu lists, %zu rules, %s\n"
                "the running proxy picks this up within a second\n",
                folder.filters.c_str(), texts.size(), rules, HumanSize(joined.size()).c_str());
  }
  return 0;
}

// ---------------------------------------------------------------- status

// The running proxy's last word on loading the lists ("Filter lists
// reloaded: N rules in M ms"), from the end of its proxy.log; empty when
// there is none.
std::string LastLoadLine(const fs::path& log) {
  FILE* file = std::fopen(log.c_str(), "rb");
  if (file == nullptr) return {};
  constexpr long kTail = 256 * 1024;
  std::string tail(kTail, '\0');
  if (std::fseek(file, -kTail, SEEK_END) != 0) std::rewind(file);
  tail.resize(std::fread(tail.data(), 1, tail.size(), file));
  std::fclose(file);
  std::string last;
  ForEachLine(tail, [&](std::string_view line) {
    if (line.find("Filter lists") != std::string_view::npos &&
        line.find(" rules") != std::string_view::npos) {
      last = Trim(line);
    }
  });
  return last;
}

int Status(const Options& options) {
  const Folder folder(options);
  if (!FolderKnown(folder)) return 1;
  std::string text;
  if (!ReadWholeFile(folder.filters, &text)) {
    Fail("there is no " + folder.filters.string() +
         "; \"vxproxy lists update\" downloads the lists and writes it");
    return 1;
  }
  std::string version = "none";
  ForEachLine(text, [&](std::string_view line) {
    if (version == "none" && StartsWithNoCase(line, "! Version:")) {
      version = Trim(line.substr(10));
    }
  });
  std::printf("filters.txt  %s\n", folder.filters.c_str());
  std::printf("size         %s, %zu rules\n", HumanSize(text.size()).c_str(), CountRules(text));
  std::printf("version      %s\n", version.c_str());
  std::printf("written      %s\n", LocalDate(ModificationTime(folder.filters)).c_str());
  // proxy.log is in --logs, else beside filters.txt, else in the default log folder.
  fs::path logs = options.logs;
  if (logs.empty()) {
    std::error_code error;
    logs = fs::exists(folder.dir / "proxy.log", error) ? folder.dir
                                                        : fs::path(vxhost::DefaultLogFolder());
  }
  const std::string loaded = logs.empty() ? std::string() : LastLoadLine(logs / "proxy.log");
  if (!loaded.empty()) std::printf("in use       %s\n", loaded.c_str());

  std::string stateText;
  const std::vector<ListState> state =
      ReadWholeFile(folder.state, &stateText) ? ParseState(stateText) : std::vector<ListState>{};
  if (state.empty()) {
    std::printf("lists        none recorded (filters.txt was not written by "
                "\"vxproxy lists update\")\n");
    return 0;
  }
  const auto joined =
      std::count_if(state.begin(), state.end(), [](const ListState& s) { return s.joined; });
  std::printf("lists        %zu\n", static_cast<std::size_t>(joined));
  for (const ListState& list : state) {
    std::string copy;
    const bool cached = ReadWholeFile(folder.cache / list.cache, &copy);
    std::printf("\n  %s%s\n", list.url.c_str(),
                list.joined ? "" : "  (downloaded; not in filters.txt: the last update failed)");
    if (cached) {
      std::printf("    %s, %s in %s/%s\n", Rules(CountRules(copy)).c_str(),
                  HumanSize(copy.size()).c_str(), kCacheName, list.cache.c_str());
    } else {
      std::printf("    no copy in %s/%s\n", kCacheName, list.cache.c_str());
    }
    std::printf("    downloaded %s, changed %s, checked %s\n", LocalDate(list.downloaded).c_str(),
                LocalDate(list.changed).c_str(), LocalDate(list.checked).c_str());
    std::printf("    ETag %s, Last-Modified %s\n", list.etag.empty() ? "none" : list.etag.c_str(),
                list.lastModified.empty() ? "none" : list.lastModified.c_str());
  }
  return 0;
}

// ---------------------------------------------------------------- options

bool ParseOptions(int argc, char** argv, Options* options) {
  if (argc < 2) return false;
  options->command = argv[1];
  if (options->command != "update" && options->command != "status") return false;
  for (int i = 2; i < argc; ++i) {
    const std::string arg = argv[i];
    if ((arg == "--filters" || arg == "--data") && i + 1 < argc) {
      (arg == "--filters" ? options->filters : options->data) = argv[++i];
    } else if (arg == "--logs" && i + 1 < argc && options->command == "status") {
      options->logs = argv[++i];
    } else if (arg == "--timeout" && i + 1 < argc && options->command == "update") {
      char* end = nullptr;
      options->timeout = std::strtol(argv[++i], &end, 10);
      if (*end != '\0' || options->timeout <= 0 || options->timeout > 3600) return false;
    } else if (options->command == "update" && IsHttpUrl(arg)) {
      if (std::find(options->urls.begin(), options->urls.end(), arg) != options->urls.end()) {
        std::fprintf(stderr, "vxproxy lists: %s is named twice\n", arg.c_str());
        return false;
      }
      options->urls.push_back(arg);
    } else {
      std::fprintf(stderr, "vxproxy lists: unknown or incomplete argument %s\n", arg.c_str());
      return false;
    }
  }
  return true;
}

}  // namespace

int RunListsCommand(int argc, char** argv) {
  if (argc >= 2 && (std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "-h") == 0)) {
    std::fputs(kUsage, stdout);
    return 0;
  }
  Options options;
  if (!ParseOptions(argc, argv, &options)) {
    std::fputs(kUsage, stderr);
    return 2;
  }
  return options.command == "update" ? Update(options) : Status(options);
}
