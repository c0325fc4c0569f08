-- A multiplexor of booleans without an "outputs" entry: its default outputs take its type.
simulation_scheme = {
  blocks = {
    { __name = "mux", __type = "wBlockMultiplexDescriptor", __parameters = { type = { value = 1 } },
      outputS = { { name = "a", type = 2 }, { name = "b", type = 2 } } },
  },
  io = { inputWires = {}, inputPorts = {}, outputWires = {}, outputPorts = {} },
  connections = {},
}
