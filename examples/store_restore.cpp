// store_restore: reads the backup store back. It lists the files that
// uploads recorded under a DSID, and restores one of them, or all of them
// below a directory, with their content, modes and times, from a directory
// store or an S3-compatible one:
//
//   store_restore --store=file:///var/store --login=agent --dsid=7 --list
//   store_restore --store=s3://backup/agents --endpoint=http://127.0.0.1:9000
//       --login=KEY --passwd=SECRET --dsid=7 --file=/home/a.txt --target=/tmp/a.txt
//   store_restore --store=file:///var/store --login=agent --dsid=7 --target=/tmp/all
//
// The values can stand in the section [store_restore] of a configuration
// file given with -c as well (keep the secret there rather than on the
// command line). Run without --store it only says what it needs and ends
// with status 0; a failure ends it with status 1 and the store's status text.
#include <tarnwick/application.h>
#include <tarnwick/configuration.h>
#include <tarnwick/store_reader.h>
#include <tarnwick/utf8.h>

#include <cstdio>
#include <string>
#include <vector>

namespace {

const Tarnwick::Setting::Importer kSettings[] = {
    {"store", "store_restore", nullptr, "The store: file:///PATH or s3://BUCKET/PREFIX.", "URL",
     Tarnwick::SETTING_ARGUMENT},
    {"endpoint", "store_restore", nullptr, "The S3 endpoint, http[s]://HOST:PORT.", "URL",
     Tarnwick::SETTING_ARGUMENT},
    {"login", "store_restore", nullptr, "The login (the S3 access key).", "NAME",
     Tarnwick::SETTING_ARGUMENT},
    {"passwd", "store_restore", nullptr, "The password (the S3 secret).", "TEXT",
     Tarnwick::SETTING_ARGUMENT},
    {"keys", "store_restore", nullptr, "A directory with Agent.key and Agent.cert for TLS.", "DIR",
     Tarnwick::SETTING_ARGUMENT},
    {"dsid", "store_restore", nullptr, "The DSID whose files are read.", "N",
     Tarnwick::SETTING_ARGUMENT},
    {"list", "store_restore", nullptr, "List the stored files of the DSID.", nullptr,
     Tarnwick::SETTING_NO_FILE},
    {"file", "store_restore", nullptr, "Restore only this stored path (to --target).", "PATH",
     Tarnwick::SETTING_ARGUMENT},
    {"target", "store_restore", nullptr, "Where to restore: the file, or the directory for all.",
     "PATH", Tarnwick::SETTING_ARGUMENT},
    {nullptr, nullptr, nullptr, nullptr, nullptr, 0},
};

std::string setting(const wchar_t* key) {
    const wchar_t* const value = Tarnwick::getConfigSingleton()->asString(key);
    std::string out;
    if (value == nullptr || !Tarnwick::wcstoutf8(value, out))
        return std::string();
    return out;
}

class StoreRestore : public Tarnwick::Application {
public:
    StoreRestore() { Tarnwick::getConfigSingleton()->import(kSettings); }
    const wchar_t* name() override { return L"store_restore"; }
    const wchar_t* description() override { return L"Lists and restores files of the store"; }
    const wchar_t* long_description() override {
        return L"Lists the files stored under a DSID (--list), restores one (--file and "
               L"--target) or all of them below a directory (--target).";
    }

    int main() override {
        std::string const store = setting(L"store");
        if (store.empty()) {
            std::printf("store_restore: no store given (--store=URL); see --help\n");
            return 0;
        }
        int dsid = 0;
        if (Tarnwick::getConfigSingleton()->getValue(L"dsid", dsid, false, false) != 0 ||
            dsid <= 0) {
            std::fprintf(stderr, "store_restore: --dsid=N (N > 0) is required\n");
            return 1;
        }
        Tarnwick::StoreReader reader;
        if (reader.open(store, setting(L"endpoint"), setting(L"login"), setting(L"passwd"),
                        setting(L"keys")) != 0)
            return failure("cannot open " + store, reader);
        bool const listing = Tarnwick::getConfigSingleton()->hasKey(L"list");
        std::string const file = setting(L"file");
        std::string const target = setting(L"target");
        if (!listing && target.empty()) {
            std::fprintf(stderr, "store_restore: give --list, or --target (and --file)\n");
            return 1;
        }
        if (listing) {
            std::vector<std::string> paths;
            if (reader.list(dsid, paths) != 0)
                return failure("cannot list DSID " + std::to_string(dsid), reader);
            for (const std::string& path : paths)
                std::printf("%s\n", path.c_str());
        }
        if (target.empty())
            return 0;
        if (!file.empty()) {
            if (reader.restore(dsid, file, target) != 0)
                return failure("cannot restore " + file, reader);
            std::printf("restored %s to %s\n", file.c_str(), target.c_str());
            return 0;
        }
        int const restored = reader.restoreAll(dsid, target);
        if (restored < 0)
            return failure("cannot restore into " + target, reader);
        std::printf("restored %d files below %s\n", restored, target.c_str());
        return 0;
    }

private:
    static int failure(const std::string& what, const Tarnwick::StoreReader& reader) {
        std::string text;
        (void)Tarnwick::wcstoutf8(reader.statusText(), text);
        std::fprintf(stderr, "store_restore: %s: %s\n", what.c_str(), text.c_str());
        return 1;
    }
};

}  // namespace

int main(int argc, char** argv) {
    // No [paths] or [webservices] settings: the program needs no agent
    // installation.
    Tarnwick::getConfigSingleton()->disableDefaults();
    Tarnwick::getConfigSingleton()->disableWebservices();
    StoreRestore app;
    return app.run(argc, argv);
}
