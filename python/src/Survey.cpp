// SPDX-License-Identifier: Apache-2.0
// The slot survey for Python: the library's JSON documents of SlotReports (the ones slotctl
// prints), and the words their states and kinds take, from which the package builds its enums.
// The pools' documents come from the same serializer. Only the library reads slot objects and words
// the reports; this file only passes them on.

#include "Binding.h"

#include <Slot/PoolSurvey.h>
#include <Slot/SlotReportJson.h>
#include <Slot/SlotSurvey.h>

#include <pybind11/stl.h>

namespace slotpy {

void BindSurvey(py::module_& m) {
    m.attr("SLOT_STATES") = Slot::StateWords();
    m.attr("SLOT_KINDS") = Slot::KindWords();
    m.attr("PART_STATES") = Slot::PartStateWords();
    m.def(
        "inspect_slot_json",
        [](const std::string& name) {
            return WithoutGil([&] {
                return CallLibrary([&] { return Slot::InfoJson(SlotSurvey::InspectSlot(name)); });
            });
        },
        py::arg("name"), "SlotSurvey::InspectSlot as the JSON document of `slotctl info --json`.");
    m.def(
        "list_slots_json",
        [] {
            return WithoutGil(
                [] { return CallLibrary([] { return Slot::ListJson(SlotSurvey::ListSlots()); }); });
        },
        "SlotSurvey::ListSlots as the JSON array of `slotctl ls --json`.");
    m.def(
        "inspect_pool_json",
        [](const std::string& name) {
            return WithoutGil([&] {
                return CallLibrary([&] { return Slot::PoolInfoJson(Slot::SurveyPool(name)); });
            });
        },
        py::arg("name"), "SurveyPool as the JSON document of `slotctl info --json` for a pool.");
    m.def(
        "list_pools_json",
        [] {
            return WithoutGil([] {
                return CallLibrary([] {
                    std::vector<Slot::PoolReport> pools;
                    for (const std::string& name : Slot::ListPools()) {
                        pools.push_back(Slot::SurveyPool(name));
                    }
                    return Slot::PoolListJson(pools);
                });
            });
        },
        "Every pool's SurveyPool as the pool entries of `slotctl ls --json`.");
}

}  // namespace slotpy
