-- Two actuators with different slew rates following one setpoint step, both built from
-- the one subsystem file slew_limit.sch.
--
-- The setpoint jumps from 0 to 10 at t = 0. "fast" may move 5 units per second, "slow"
-- 1 unit per second, both updated every 0.1 s; "gap" is fast - slow. Each subsystem block
-- names the file ("template_scheme", relative to this file's directory, without ".sch")
-- and gives the parameters that the file leaves open: "limiter.slope" is parameter
-- "slope" of the nested block "limiter".
--
-- Run:  vandrel run examples/slew_limiters.lua --until 12 --every 0.5 --plot slew.svg
simulation_scheme = {
  blocks = {
    -- [0] the setpoint
    { __name = "setpoint", __type = "wBlockConstantsDescriptor",
      values = { { name = "value", type = 1 } }, __parameters = { value = { value = 10 } } },
    -- [1] the fast actuator: slew_limit.sch with 5 units per second
    { __name = "fast", __type = "wBlockSubsystemDescriptor",
      additional_params = { { name = "limiter.dt", type = 1 }, { name = "limiter.slope", type = 1 } },
      __parameters = {
        filename = { value = "slew_limit" },
        ["limiter.dt"] = { value = 0.1 },
        ["limiter.slope"] = { value = 5 },
      },
      template_scheme = "slew_limit" },
    -- [2] the slow actuator: the same file with 1 unit per second
    { __name = "slow", __type = "wBlockSubsystemDescriptor",
      additional_params = { { name = "limiter.dt", type = 1 }, { name = "limiter.slope", type = 1 } },
      __parameters = {
        filename = { value = "slew_limit" },
        ["limiter.dt"] = { value = 0.1 },
        ["limiter.slope"] = { value = 1 },
      },
      template_scheme = "slew_limit" },
    -- [3] gap = fast - slow
    { __name = "gap", __type = "wBlockSummatorDescriptor<double>", __parameters = {},
      inputs = { { name = "fast", coeff = 1 }, { name = "slow", coeff = -1 } } },
  },
  io = {
    inputWires = { { name = "fast", type = 2 }, { name = "slow", type = 2 }, { name = "gap", type = 2 } },
    inputPorts = {},
    outputWires = {},
    outputPorts = {},
  },
  connections = {
    { output_block = 0, output_lead = "value", input_block = 1, input_lead = "input", port = false },
    { output_block = 0, output_lead = "value", input_block = 2, input_lead = "input", port = false },
    { output_block = 1, output_lead = "output", input_block = 3, input_lead = "fast", port = false },
    { output_block = 2, output_lead = "output", input_block = 3, input_lead = "slow", port = false },
    { output_block = 1, output_lead = "output", input_block = -666, input_lead = "fast", port = false },
    { output_block = 2, output_lead = "output", input_block = -666, input_lead = "slow", port = false },
    { output_block = 3, output_lead = "output", input_block = -666, input_lead = "gap", port = false },
  },
}
