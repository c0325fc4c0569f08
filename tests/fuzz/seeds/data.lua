-- Lua data as scheme files write it and as people write it by hand: escapes, long
-- strings, numbers at the edges, computed values, nesting, and an overrides table.
local half = 0.5
simulation_scheme = {
  blocks = {
    { __name = "odd\tname \"quoted\"\n\0end", __type = [[wBlockConstantsDescriptor]],
      values = { { name = "v", type = 3 }, { name = "n", type = 5 }, { name = "d", type = 1 } },
      __parameters = { v = { value = { 1, -1/math.huge, math.huge } }, n = { value = 4294967295 }, d = { value = -2^-1074 } } },
    { __name = "ramp", __type = "wBlockRampDescriptor",
      __parameters = { dt = { value = half * 0.1 }, slope = { value = 1e308 * 10 - math.huge + 2 } } },
  },
  io = { inputWires = {}, inputPorts = {}, outputWires = {}, outputPorts = {} },
  connections = {
    { output_block = 0, output_lead = "d", input_block = 1, input_lead = "target", port = false },
  },
  extra = { [0] = "zero", [-1] = 1.5, [2.5] = 0/0, [1] = { x = 1e-320, y = 0x7fffffff }, [[
long]], ["odd key"] = { { { {} } } } },
}
overrides = { ramp = { dt = 0.2 } }
