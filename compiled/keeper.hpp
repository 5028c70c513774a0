// Makes programs of a table that changes: what was made before of rules that have stayed is taken as it is.
#pragma once

#include "compiled/program.hpp"

#include <memory>
#include <optional>

namespace compiled
{

// Gives what compile() gives, and remembers it. Where one rule of ten thousand has changed, the others are compared
// with what they were, and that is all that is done for them.
//
//   Keeper keeper;
//   held = what is in the kernel (readProgram), or nothing
//   for each commit:
//       wanted = keeper.compile(table, &held)
//       changes = difference(held, *wanted)
//       addChanges(batch, held, *wanted, changes)   if they are not empty
//       held = *wanted                              when the kernel has taken it, and when there was no difference
//
// Programs share their lists of steps and elements with those that the keeper made before (compiled/list.hpp): a copy
// costs little, and so does the difference between two of them. Of one that was read from the kernel all has to be
// compared; so the last line matters. When the kernel did not take it, or holds another one meanwhile, `before` is that
// one, and nothing else is to be done.
//
// The rules' marks need not be compiled::mark's, but a rule whose mark has changed is another rule.
// Threading: no shared state but that of the lists, which may be read only. Throws std::bad_alloc only; then
// it has forgotten everything, and goes on.
class Keeper
{
public:
    Keeper();
    ~Keeper();
    Keeper(Keeper&& other) noexcept;
    Keeper& operator=(Keeper&& other) noexcept;

    // The program for frames that pass INPUT and FORWARD, as compile() has it (compiled/compile.hpp). What is new takes
    // its place between what is in `before`; what was there at the last call is made as it was then.
    std::optional<Program> compile(const ebtables::Table& table, const Program* before = nullptr);

    // Gives the memory back: 650 to 900 bytes for each rule, beside the program.
    void forget();

    struct Memory; // its own

private:
    std::unique_ptr<Memory> m_memory;
};

} // namespace compiled
