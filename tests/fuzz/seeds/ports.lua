-- Port traffic: a scheme input port fans out to two NOT (trig) blocks that feed an
-- AND (trig); the same input resets a Delay trigger whose time-out is a scheme output.
simulation_scheme = {
  blocks = {
    { __name = "not_a", __type = "wBlockNOTtriggerDescriptor", __parameters = {} },
    { __name = "not_b", __type = "wBlockNOTtriggerDescriptor", __parameters = {} },
    { __name = "both", __type = "wBlockANDtriggerDescriptor", __parameters = {} },
    { __name = "late", __type = "wBlockDelayTriggerDescriptor",
      __parameters = { dt = { value = 0.1 }, enabled = { value = true }, delay_time = { value = 0.3 } } },
  },
  io = {
    inputWires = {},
    inputPorts = { { name = "both", type = 1 }, { name = "late", type = 1 } },
    outputWires = {},
    outputPorts = { { name = "go", type = 1 } },
  },
  connections = {
    { output_block = -666, output_lead = "go", input_block = 0, input_lead = "input", port = true },
    { output_block = -666, output_lead = "go", input_block = 1, input_lead = "input", port = true },
    { output_block = -666, output_lead = "go", input_block = 3, input_lead = "reset", port = true },
    { output_block = 0, output_lead = "output", input_block = 2, input_lead = "input1", port = true },
    { output_block = 1, output_lead = "output", input_block = 2, input_lead = "input2", port = true },
    { output_block = 2, output_lead = "output", input_block = -666, input_lead = "both", port = true },
    { output_block = 3, output_lead = "timed_out", input_block = -666, input_lead = "late", port = true },
  },
}
