// velkor-bench-agent DIR PORT BATCH SYNC [chunking]: one client of a benchmark run, driven by lines on standard input.
// BATCH: notes per local save; SYNC: normal or full, the durability of a save. Commands, one JSON array a line: ["prepare", N],
// ["create", N], ["change", N], ["sync", {...}], ["digest", null], ["quit", null]; each answered by one line "@@{...}".
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <string>

#include "bench/agent/Client.h"
#include "json/CJSONDeserializer.h"
#include "json/CJSONSerializer.h"
#include "platform/base/Exception.h"

namespace {

using namespace velkor;

void answer(NS::Dictionary members, bool ok) {
    NS::Dictionary line{{"ok", ok}};
    for (const auto& member : members) line.set(member.key(), member.value());
    std::cout << "@@" << CJSONSerializer::serializer().serializeDictionary(line, nullptr).value_or("{\"ok\":false}") << std::endl;
}

NS::Dictionary execute(agent::Client& client, const NS::Array& command) {
    std::string verb = command.empty() ? "" : command[0].stringOr("");
    auto count = command.size() > 1 ? command[1].asInteger().value_or(0) : 0;
    if (verb == "prepare") {
        client.prepare(static_cast<std::size_t>(count));
    } else if (verb == "create") {
        client.create();
    } else if (verb == "change") {
        client.change(static_cast<std::size_t>(count));
    } else if (verb == "sync") {
        client.sync();
    } else if (verb == "digest") {
        return client.digest();
    } else {
        throw std::runtime_error("unknown command " + verb);
    }
    return {};
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 5) {
        std::cerr << "usage: velkor-bench-agent DIR PORT BATCH SYNC [chunking]\n";
        return 2;
    }
    try {
        agent::Client::Settings settings{argv[1], std::string("http://127.0.0.1:") + argv[2], std::max(1l, std::atol(argv[3])),
                                         std::string(argv[4]) == "full", argc > 5 && std::string(argv[5]) == "chunking"};
        agent::Client client(settings);
        client.signUp();
        answer({}, true);
        for (std::string line; std::getline(std::cin, line);) {
            auto command = CJSONDeserializer::deserializer().deserializeAsArray(line, nullptr);
            if (!command) throw std::runtime_error("a command is no JSON array");
            if (!command->empty() && (*command)[0] == NS::Value("quit")) break;
            answer(execute(client, *command), true);
        }
        return 0;
    } catch (const std::exception& error) {
        answer({{"error", error.what()}}, false);
        return 1;
    }
}
