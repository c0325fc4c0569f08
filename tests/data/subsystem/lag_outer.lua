-- lag.sch inside a scheme without continuous blocks of its own; any value written to the
-- scheme input port "reset" resets the continuous state, the nested lag's included.
simulation_scheme = {
  blocks = {
    { __name = "lag", __type = "wBlockSubsystemDescriptor", additional_params = {},
      __parameters = { filename = { value = "lag" } }, template_scheme = "lag" },
  },
  io = {
    inputWires = { { name = "x", type = 2 } },
    inputPorts = {},
    outputWires = { { name = "u", type = 2 } },
    outputPorts = { { name = "reset", type = 1 } },
  },
  connections = {
    { output_block = -666, output_lead = "u", input_block = 0, input_lead = "u", port = false },
    { output_block = -666, output_lead = "reset", input_block = -665, input_lead = "reset_diff_state", port = true },
    { output_block = 0, output_lead = "x", input_block = -666, input_lead = "x", port = false },
  },
}
