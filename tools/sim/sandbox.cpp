#include "sandbox.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <system_error>

namespace fs = std::filesystem;

namespace rfevent::sim {

namespace {

const char* const kFolders[] = {"/var/lib/rfevent",
                                "/var/lib/lumenrest/redfish_subscriptions",
                                "/var/run/lumenrest",
                                "/var/run/lumenrest-providers",
                                "/var/run/telemetryservice",
                                "/var/tmp/telemetry",
                                "/etc/certs/CA/certs",
                                "/etc/certs/pubkey",
                                "/flash/data0/cv/private",
                                "/flash/data0/IERR_LOG/IERR_LOG1",
                                "/sim"};

std::string errorText(int error) {
    return std::error_code(error, std::generic_category()).message();
}

std::string makeTemporaryRoot() {
    const char* base = std::getenv("TMPDIR"); // NOLINT(concurrency-mt-unsafe): read before any
                                              // thread of this program starts
    std::string pattern = std::string(base && *base ? base : "/tmp") + "/rfevent-sim.XXXXXX";
    if (::mkdtemp(pattern.data()) == nullptr) {
        throw std::runtime_error("cannot create a temporary folder from " + pattern + ": " +
                                 errorText(errno));
    }
    return pattern;
}

// Writes next to the target and renames, as the REST server replaces its files.
void replaceTextFile(const std::string& path, const std::string& content) {
    std::string temp = path + ".sim-tmp";
    writeTextFile(temp, content);
    fs::rename(temp, path);
}

void execSql(sqlite3* db, const std::string& sql) {
    char* message = nullptr;
    if (sqlite3_exec(db, sql.c_str(), nullptr, nullptr, &message) != SQLITE_OK) {
        std::string why = message ? message : "unknown error";
        sqlite3_free(message);
        throw std::runtime_error("telemetry database: " + why);
    }
}

} // namespace

void writeTextFile(const std::string& path, const std::string& content) {
    fs::create_directories(fs::path(path).parent_path());
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
        throw std::runtime_error("cannot write " + path + ": " + errorText(errno));
    }
    std::size_t done = 0;
    while (done < content.size()) {
        ssize_t n = ::write(fd, content.data() + done, content.size() - done);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0) {
            int error = errno;
            ::close(fd);
            throw std::runtime_error("cannot write " + path + ": " + errorText(error));
        }
        done += static_cast<std::size_t>(n);
    }
    if (::close(fd) != 0) {
        throw std::runtime_error("cannot write " + path + ": " + errorText(errno));
    }
}

std::string readTextFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

Sandbox::Sandbox(const std::string& root) {
    temporary_ = root.empty();
    root_ = temporary_ ? makeTemporaryRoot() : fs::absolute(root).lexically_normal().string();
    while (root_.size() > 1 && root_.back() == '/') {
        root_.pop_back();
    }
    for (const char* folder : kFolders) {
        fs::create_directories(root_ + folder);
    }
}

void Sandbox::writeAttributes(const DeliverySettings& settings) const {
    Json::Value attributes(Json::objectValue);
    attributes["Tavik.Embedded.1#RedfishEventing.1#EventEnable"] = "1";
    attributes["Tavik.Embedded.1#RedfishEventing.1#DeliveryRetryAttempts"] = settings.attempts;
    attributes["Tavik.Embedded.1#RedfishEventing.1#DeliveryRetryIntervalInSeconds"] =
        settings.intervalSeconds;
    Json::Value ignore(Json::objectValue);
    ignore["type"] = "enumeration";
    ignore["value"] = settings.ignoreCertificateErrors;
    attributes["Tavik.Embedded.1#RedfishEventing.1#IgnoreCertificateErrors"] = ignore;
    attributes["System.Embedded.1#ServerOS.1#HostName"] = settings.hostName;
    replaceTextFile(path(paths::kAttributes), attributes.toStyledString());
}

void Sandbox::writeSubscriptionStore(const Json::Value& store) const {
    replaceTextFile(path(paths::kSubscriptionStore), store.toStyledString());
}

Json::Value Sandbox::readSubscriptionStore() const {
    std::ifstream in(path(paths::kSubscriptionStore), std::ios::binary);
    Json::Value store;
    Json::CharReaderBuilder builder;
    std::string errors;
    if (!in || !Json::parseFromStream(builder, in, &store, &errors)) {
        return Json::Value();
    }
    return store;
}

void Sandbox::writeSseSubscriptions(const Json::Value& subscriptions) const {
    replaceTextFile(path(paths::kSseSubscriptions), subscriptions.toStyledString());
}

void Sandbox::writeTelemetryDatabase(
    const std::vector<std::pair<std::string, std::string>>& reports) const {
    std::string file = path(paths::kTelemetryDatabase);
    fs::remove(file);
    sqlite3* db = nullptr;
    if (sqlite3_open_v2(file.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr) !=
        SQLITE_OK) {
        std::string why = db ? sqlite3_errmsg(db) : "out of memory";
        sqlite3_close(db);
        throw std::runtime_error("cannot create " + file + ": " + why);
    }
    try {
        // Same quoting as the plug-in's query: the column is named @odata.id.
        execSql(db, "CREATE TABLE JSON (root TEXT, [@odata.id] TEXT)");
        sqlite3_stmt* insert = nullptr;
        if (sqlite3_prepare_v2(db, "INSERT INTO JSON (root, [@odata.id]) VALUES (?, ?)", -1,
                               &insert, nullptr) != SQLITE_OK) {
            throw std::runtime_error(std::string("telemetry database: ") + sqlite3_errmsg(db));
        }
        for (const auto& [name, json] : reports) {
            std::string id = kMetricReportsRoot + name;
            sqlite3_bind_text(insert, 1, json.c_str(), -1, SQLITE_TRANSIENT);
            sqlite3_bind_text(insert, 2, id.c_str(), -1, SQLITE_TRANSIENT);
            int rc = sqlite3_step(insert);
            sqlite3_reset(insert);
            if (rc != SQLITE_DONE) {
                sqlite3_finalize(insert);
                throw std::runtime_error(std::string("telemetry database: ") + sqlite3_errmsg(db));
            }
        }
        sqlite3_finalize(insert);
    } catch (...) {
        sqlite3_close(db);
        throw;
    }
    sqlite3_close(db);
}

std::string Sandbox::lookUpReport(const std::string& name) const {
    std::string file = path(paths::kTelemetryDatabase);
    sqlite3* db = nullptr;
    std::string result;
    if (sqlite3_open_v2(file.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK) {
        sqlite3_stmt* query = nullptr;
        if (sqlite3_prepare_v2(db, "select root from JSON where [@odata.id] = ?", -1, &query,
                               nullptr) == SQLITE_OK) {
            std::string id = kMetricReportsRoot + name;
            sqlite3_bind_text(query, 1, id.c_str(), -1, SQLITE_TRANSIENT);
            if (sqlite3_step(query) == SQLITE_ROW && sqlite3_column_text(query, 0) != nullptr) {
                result = reinterpret_cast<const char*>(sqlite3_column_text(query, 0));
            }
        }
        sqlite3_finalize(query);
    }
    sqlite3_close(db);
    return result;
}

void Sandbox::appendSerialLog(const std::string& text) const {
    std::ofstream out(path(paths::kSerialLogCapture), std::ios::binary | std::ios::app);
    out << text;
}

void Sandbox::writeCpuRegisterDump(const std::string& bytes) const {
    writeTextFile(path(paths::kCpuRegisterDump), bytes);
}

std::vector<Json::Value> Sandbox::eventLogEntries() const {
    std::vector<Json::Value> entries;
    std::istringstream lines(readTextFile(path(paths::kEventLog)));
    std::string line;
    Json::CharReaderBuilder builder;
    while (std::getline(lines, line)) {
        std::istringstream in(line);
        Json::Value entry;
        std::string errors;
        if (!line.empty() && Json::parseFromStream(builder, in, &entry, &errors)) {
            entries.push_back(entry);
        }
    }
    return entries;
}

void Sandbox::remove() {
    if (temporary_ && !root_.empty()) {
        std::error_code ignored;
        fs::remove_all(root_, ignored);
        root_.clear();
    }
}

} // namespace rfevent::sim
