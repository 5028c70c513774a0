// Prints random commits for a test in a real kernel. usage: random_steps SEED STEPS
//
// Per commit: the handler's command lines behind "line ", the tables that the model then holds behind "table ", "end".
#include "tests/random/bridge_model.hpp"
#include "tests/random/scenario.hpp"

#include "handler/moatkeeper.hpp"
#include "platform_fake/recording_queue.hpp"

#include <cstdio>
#include <cstdlib>
#include <sstream>

int main(int argc, char** argv)
{
    if (argc != 3) {
        std::fprintf(stderr, "usage: random_steps SEED STEPS\n");
        return 2;
    }
    randomtest::Generator generator(std::strtoull(argv[1], nullptr, 10));
    randomtest::Tables tables;
    randomtest::BridgeModel model;
    fake::MemoryTables source;
    fake::RecordingQueue queue;
    zol::moatkeeper::moatkeeper handler;
    for (int step = std::atoi(argv[2]); step > 0; --step) {
        for (int changes = generator.below(4); changes >= 0; --changes)
            generator.change(tables);
        tables.writeTo(source);
        handler.loadFromConfig(source, "");
        handler.commitToSystem(source, &queue);
        for (const fake::QueueCall& call : queue.takeCalls()) {
            if (call.isProcess)
                continue;
            std::printf("line %s\n", call.line.c_str());
            model.apply(call.line);
        }
        std::istringstream dump(model.dump());
        for (std::string line; std::getline(dump, line);)
            std::printf("table %s\n", line.c_str());
        std::printf("end\n");
    }
    return 0;
}
