// Helpers of the batched networks: a batch is n streams' contexts, and each
// layer takes pointer arrays into them (at most kMaxBatch entries).
#pragma once

namespace corvina {

// out[s] = member(contexts[s]) for the n streams.
template <typename Context, typename T, typename Member>
void Gather(Context* const* contexts, int n, T** out, Member member) {
  for (int s = 0; s < n; ++s) out[s] = member(contexts[s]);
}

}  // namespace corvina
