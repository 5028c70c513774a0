// A section of the program: what is made of the rules of a class of ports, or of those that belong to none.
//
// It depends on these rules only, so it can stay as it is when others change.
#pragma once

#include "compiled/known.hpp"
#include "compiled/program.hpp"
#include "compiled/remembered.hpp"

#include <cstddef>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace compiled
{

struct Section {
    std::size_t firstMap = 0; // the number that the first of its maps has in the program
    std::vector<Map> maps;
    std::vector<Chain> chains;     // behind its steps
    std::vector<std::string> ends; // of the chains, those that lead to no other, where that is known
    List<Step> steps;              // in the chain of the class
    std::set<std::string> targets; // chains of the table that its rules lead to
    std::set<std::string> logs;    // the names of chains that log
};

// What was made of which rules. That of equal rules is taken as it is, which makes comparing it with what was before a
// matter of comparing pointers.
struct SectionMemory {
    struct Elements { // of a run's map
        Serials rules;
        Map map;
        std::set<std::string> logs;
    };
    struct Runner { // the rules of one form in a race, and its two maps
        Serials rules;
        std::vector<std::size_t> reached; // of these
        std::vector<Place> places;        // of the reached ones, as placeMap has them
        Map placeMap;
        Map verdicts; // numbers
        Map meanings; // of these
        std::set<std::string> logs;
    };
    struct Race { // its steps, which depend on the forms only
        std::vector<std::shared_ptr<const Form>> forms;
        std::size_t firstMap = 0;
        bool hasOtherLengths = false;
        std::vector<Chain> chains;
        std::vector<Step> steps;
    };
    struct Page {
        Serials rules;
        List<Step> steps;
        std::set<std::string> targets;
    };

    Serials rules;
    Section section;
    Remembered<Elements> elements;
    Remembered<Runner> runners;
    Remembered<Race> races;
    Remembered<Page> pages;
};

} // namespace compiled
