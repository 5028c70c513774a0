// Any bytes as decisions about rules, what becomes of them, and frames: in the compiled form every frame has the fate,
// the counters and the log lines that it has in the plain one; and what is made of rules that have changed is what is
// made of them anew.
#include "compiled/compile.hpp"
#include "compiled/describe.hpp"
#include "compiled/difference.hpp"
#include "compiled/keeper.hpp"
#include "tests/compiled/outcome.hpp"
#include "tests/compiled/random_rules.hpp"

#include <cstdlib>
#include <optional>
#include <span>

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size)
{
    std::span<const unsigned char> rest(data, size);
    const auto next = [&](std::size_t below) {
        std::size_t number = 0;
        for (std::size_t largest = 0; largest + 1 < below && !rest.empty(); largest = largest << 8U | 0xffU) {
            number = number << 8U | rest.front();
            rest = rest.subspan(1);
        }
        return number % below;
    };
    test::RandomRules random(next);
    const bool strange = next(2) == 0;
    ebtables::Table table = random.table(next(60), strange);
    compiled::Keeper keeper;
    compiled::Program held;
    do {
        const std::optional<compiled::Program> program = keeper.compile(table, &held);
        if (!program || compiled::describe(*program).empty())
            std::abort();
        const std::optional<compiled::Program> anew = compiled::compile(table, &held);
        if (!anew || !compiled::difference(*anew, *program).empty())
            std::abort();
        for (int frames = 0; frames < 20; ++frames) {
            const test::RawFrame frame = random.frame(table);
            if (!(test::walk(table, frame) == test::run(*program, frame)))
                std::abort();
        }
        held = *program;
        random.change(table, strange);
    } while (!rest.empty());
    return 0;
}
