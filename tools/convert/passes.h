// What happens to a graph between import and writing.
#pragma once

#include "tools/convert/graph.h"

namespace corvalith::tools {

/// Folds and removes layers without changing results beyond rounding: copies, padding into the window that follows,
/// normalisations into convolutions, ReLU into convolutions, layers that nothing reads. Outputs keep their names.
void optimize(Graph& graph);

/// Lets layers that can work in place do so where nothing reads their input afterwards. Without `mayDropNames` only
/// where no name of the source is lost.
void reuseBlocks(Graph& graph, bool mayDropNames);

/// Gives the last version of every source name that name, and shortens names that the file format cannot hold.
void settleNames(Graph& graph);

}  // namespace corvalith::tools
