-- Subsystems whose constants stay open: a host sets them through its overrides,
-- { direct = { c = { k = ... } }, deep = { inner = { c = { k = ... } } } }.
simulation_scheme = {
  blocks = {
    { __name = "direct", __type = "wBlockSubsystemDescriptor", additional_params = {},
      __parameters = { filename = { value = "offset" } }, template_scheme = "offset" },
    { __name = "deep", __type = "wBlockSubsystemDescriptor", additional_params = {},
      __parameters = { filename = { value = "mid" } }, template_scheme = "mid" },
  },
  io = {
    inputWires = { { name = "y1", type = 2 }, { name = "y2", type = 2 } },
    inputPorts = {},
    outputWires = { { name = "u", type = 2 } },
    outputPorts = {},
  },
  connections = {
    { output_block = -666, output_lead = "u", input_block = 0, input_lead = "u", port = false },
    { output_block = -666, output_lead = "u", input_block = 1, input_lead = "u", port = false },
    { output_block = 0, output_lead = "y", input_block = -666, input_lead = "y1", port = false },
    { output_block = 1, output_lead = "y", input_block = -666, input_lead = "y2", port = false },
  },
}
