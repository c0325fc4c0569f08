-- offset.sch used twice: ya = u + 1.5, yb = u - 2.
simulation_scheme = {
  blocks = {
    { __name = "a", __type = "wBlockSubsystemDescriptor",
      additional_params = { { name = "c.k", type = 1 } },
      __parameters = { filename = { value = "offset" }, ["c.k"] = { value = 1.5 } },
      template_scheme = "offset" },
    { __name = "b", __type = "wBlockSubsystemDescriptor",
      additional_params = { { name = "c.k", type = 1 } },
      __parameters = { filename = { value = "offset" }, ["c.k"] = { value = -2 } },
      template_scheme = "offset" },
  },
  io = {
    inputWires = { { name = "ya", type = 2 }, { name = "yb", type = 2 } },
    inputPorts = {},
    outputWires = { { name = "u", type = 2 } },
    outputPorts = {},
  },
  connections = {
    { output_block = -666, output_lead = "u", input_block = 0, input_lead = "u", port = false },
    { output_block = -666, output_lead = "u", input_block = 1, input_lead = "u", port = false },
    { output_block = 0, output_lead = "y", input_block = -666, input_lead = "ya", port = false },
    { output_block = 1, output_lead = "y", input_block = -666, input_lead = "yb", port = false },
  },
}
