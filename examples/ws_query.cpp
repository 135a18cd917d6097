// ws_query: calls a web service of the management server and prints its
// answer. The table comes out as aligned columns under their names, the
// server's error block as its code and texts.
//
//   ws_query --url=URL [--field=NAME=VALUE]... [--timeout=SECONDS]
//
// Fields go out as a multipart form POST (the first value of a name counts);
// without fields the call is a GET. Exit status 0 for a table, 1 for an error
// block or a failed call.
//
// Without --url it shows itself: it answers two calls on a port of 127.0.0.1
// with a small server of its own, one with a table and one with an error
// block, prints both, and exits 0 when both came as expected.
#include <tarnwick/application.h>
#include <tarnwick/configuration.h>
#include <tarnwick/recordset.h>
#include <tarnwick/tarnwick.h>
#include <tarnwick/webservice.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

const Tarnwick::Setting::Importer kSettings[] = {
    {"url", "query", nullptr, "Call the web service at URL.", "URL", Tarnwick::SETTING_ARGUMENT},
    {nullptr, nullptr, nullptr, nullptr, nullptr, 0},
};

std::string utf8(const wchar_t* text) {
    std::string out;
    if (text == nullptr || !Tarnwick::wcstoutf8(text, out))
        return "";
    return out;
}

// Display width of UTF-8 text: one column per character.
size_t width(const std::string& text) {
    size_t count = 0;
    for (unsigned char c : text)
        count += (c & 0xC0) != 0x80 ? 1 : 0;
    return count;
}

void printTable(Tarnwick::RecordSet& set) {
    std::vector<std::string> names;
    for (auto it = set.begin(); it != set.end(); ++it)
        names.push_back(utf8((*it)->name()));
    std::vector<std::vector<std::string>> rows;
    while (Tarnwick::Record* record = set.next()) {
        std::vector<std::string> row;
        for (const std::string& name : names) {
            std::wstring wide;
            Tarnwick::utf8towcs(name.c_str(), wide);
            const Tarnwick::Field* field = record->field(wide.c_str());
            row.push_back(field != nullptr ? utf8(field->value()) : "");
        }
        rows.push_back(row);
    }
    std::vector<size_t> widths;
    for (const std::string& name : names)
        widths.push_back(width(name));
    for (const auto& row : rows)
        for (size_t i = 0; i < row.size(); ++i)
            widths[i] = std::max(widths[i], width(row[i]));
    auto line = [&widths](const std::vector<std::string>& cells) {
        std::string out;
        for (size_t i = 0; i < cells.size(); ++i) {
            out += cells[i];
            if (i + 1 < cells.size())
                out += std::string(widths[i] - width(cells[i]) + 2, ' ');
        }
        std::printf("%s\n", out.c_str());
    };
    line(names);
    for (const auto& row : rows)
        line(row);
    std::printf("(%d rows)\n", set.count());
}

// The demonstration's server: answers one request on each of `answers`
// connections, in order, and ends.
class DemoServer {
public:
    explicit DemoServer(std::vector<std::string> answers) : m_answers(std::move(answers)) {}
    ~DemoServer() {
        if (m_thread.joinable())
            m_thread.join();
        if (m_listen >= 0)
            ::close(m_listen);
    }
    DemoServer(const DemoServer&) = delete;
    DemoServer& operator=(const DemoServer&) = delete;

    // The port it listens on, or 0.
    int start() {
        m_listen = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        if (m_listen < 0 || ::bind(m_listen, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
            ::listen(m_listen, 4) != 0 ||
            ::getsockname(m_listen, reinterpret_cast<sockaddr*>(&address), &length) != 0)
            return 0;
        m_thread = std::thread([this]() { serve(); });
        return ntohs(address.sin_port);
    }

private:
    void serve() {
        for (const std::string& body : m_answers) {
            const int fd = ::accept(m_listen, nullptr, nullptr);
            if (fd < 0)
                return;
            // The request: its head, then as many bytes as it announces.
            std::string request;
            char buffer[4096];
            size_t end;
            ssize_t got = 0;
            while ((end = request.find("\r\n\r\n")) == std::string::npos &&
                   (got = ::recv(fd, buffer, sizeof buffer, 0)) > 0)
                request.append(buffer, static_cast<size_t>(got));
            size_t length = 0;
            const size_t field = request.find("Content-Length: ");
            if (field != std::string::npos && field < end)
                length = std::strtoul(request.c_str() + field + 16, nullptr, 10);
            while (end != std::string::npos && request.size() < end + 4 + length &&
                   (got = ::recv(fd, buffer, sizeof buffer, 0)) > 0)
                request.append(buffer, static_cast<size_t>(got));
            const std::string answer =
                "HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\n"
                "Content-Length: " +
                std::to_string(body.size()) + "\r\nConnection: close\r\n\r\n" + body;
            (void)::send(fd, answer.data(), answer.size(), MSG_NOSIGNAL);
            ::close(fd);
        }
    }

    std::vector<std::string> m_answers;
    int m_listen = -1;
    std::thread m_thread;
};

class QueryApp : public Tarnwick::Application {
public:
    explicit QueryApp(std::vector<std::pair<std::string, std::string>> fields)
        : m_fields(std::move(fields)) {
        Tarnwick::getConfigSingleton()->import(kSettings);
    }
    const wchar_t* name() override { return L"ws_query"; }
    const wchar_t* description() override { return L"Tarnwick web service query example"; }
    const wchar_t* long_description() override {
        return L"Calls a web service and prints its table or its error.";
    }
    int main() override {
        const wchar_t* url = Tarnwick::getConfigSingleton()->asString(L"url");
        if (url == nullptr)
            return demo();
        return query(utf8(url), m_fields);
    }

private:
    int demo() {
        std::printf(
            "usage: ws_query --url=URL [--field=NAME=VALUE]... [--timeout=SECONDS]\n"
            "Without --url, two calls to a server of its own on 127.0.0.1:\n\n");
        DemoServer server(
            {"***BEGIN***\n0\nid|name|size\nI|S|I\n1|alpha|10\n"
             "2|b\xc3\xa9ta|2000\n3|gamma|300000\n***DONE***\n",
             "***ERROR***\n5\nseverity: high\nserver: s1\nsource: inventory\n"
             "description: no such client\n***DONE***\n"});
        const int port = server.start();
        if (port == 0) {
            std::printf("no port on 127.0.0.1\n");
            return 1;
        }
        const std::string base = "http://127.0.0.1:" + std::to_string(port);
        std::printf("$ ws_query --url=%s/clients --field=group=all\n", base.c_str());
        const int table = query(base + "/clients", {{"group", "all"}});
        std::printf("exit %d\n\n$ ws_query --url=%s/client --field=id=42\n", table, base.c_str());
        const int error = query(base + "/client", {{"id", "42"}});
        std::printf("exit %d\n", error);
        return table == 0 && error == 1 ? 0 : 1;
    }

    static int query(const std::string& address,
                     const std::vector<std::pair<std::string, std::string>>& fields) {
        // Made after the configuration was read: it takes "timeout" and the
        // other web service settings from there.
        Tarnwick::WebService service;
        service.url(address.c_str());
        for (const auto& field : fields)
            service.field(field.first.c_str(), field.second);
        Tarnwick::RecordSet set;
        const int result = service.get(&set, 0);
        if (set.error() != nullptr) {
            const Tarnwick::WebServiceError* error = set.error();
            std::printf("error %d\nseverity: %s\nserver: %s\nsource: %s\ndescription: %s\n",
                        error->code(), utf8(error->severity()).c_str(),
                        utf8(error->server()).c_str(), utf8(error->source()).c_str(),
                        utf8(error->description()).c_str());
            return 1;
        }
        if (result != 0) {
            std::printf("call failed (HTTP status %ld)\n", service.getResponseCode());
            return 1;
        }
        printTable(set);
        return 0;
    }

    std::vector<std::pair<std::string, std::string>> m_fields;
};

}  // namespace

int main(int argc, char** argv) {
    Tarnwick::getConfigSingleton()->disableDefaults();
    // The fields may repeat, so they are taken off the command line here;
    // the rest goes to the application's options.
    std::vector<std::pair<std::string, std::string>> fields;
    std::vector<char*> rest;
    for (int i = 0; i < argc; ++i) {
        const char* const prefix = "--field=";
        if (i > 0 && std::strncmp(argv[i], prefix, std::strlen(prefix)) == 0) {
            const std::string item = argv[i] + std::strlen(prefix);
            const size_t equals = item.find('=');
            if (equals == std::string::npos || equals == 0) {
                std::fprintf(stderr, "ws_query: a field is NAME=VALUE: %s\n", argv[i]);
                return 1;
            }
            fields.emplace_back(item.substr(0, equals), item.substr(equals + 1));
        } else {
            rest.push_back(argv[i]);
        }
    }
    rest.push_back(nullptr);
    QueryApp app(fields);
    return app.run(static_cast<int>(rest.size() - 1), rest.data());
}
