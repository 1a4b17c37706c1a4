#pragma once
// The Tasseled Cap sets the host offers beyond the plug-in's three built-in ones, each as published,
// and how each picks its bands from a stack.
#include <string>
#include <vector>

// A band count of INPUT and the bands a set takes from such a stack.
struct KtBandRule {
    int fewest, most;        // INPUT band counts the rule covers
    std::vector<int> bands;  // 1-based, in the set's column order
    const char* stack;       // what such a stack holds, for the help
};

struct KtSet {
    const char* name;        // as -sensor takes it
    const char* sensor;
    const char* quantity;    // what the input values must be
    const char* columns;     // the bands of the table, in its order
    const char* reference;
    std::vector<const char*> components;
    std::vector<double> matrix; // components × columns, row-major
    std::vector<KtBandRule> rules;
    int Columns() const { return static_cast<int>(matrix.size() / components.size()); }
};

// The set of that -sensor name, in any case; null for the built-in names and unknown ones.
const KtSet* FindKtSet(const std::string& name);

// The bands of a stack of bandCount bands the set uses; empty when no rule covers that count.
std::vector<int> KtSetBands(const KtSet& set, int bandCount);
// The problem with a stack of bandCount bands for the set, e.g. "-sensor s2 takes ... bands".
std::string KtBandCountProblem(const KtSet& set, int bandCount);

// The bands of INPUT the built-in sets read (codes 0 tm, 1 mss, 2 etm), by the plug-in's rules.
std::vector<int> KtBuiltinBands(int code, int bandCount);

// kt's --help text after its usage line: every set, its input quantity, bands and source.
const char* KtHelp();
