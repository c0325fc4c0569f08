-- A subsystem block whose file name is unset in the parameter and missing as a key: the
-- saved form must reload to the same bytes.
simulation_scheme = {
  blocks = {
    { __name = "fast", __type = "wBlockSubsystemDescriptor",
      additional_params = { { name = "limiter.dt", type = 1 }, { name = "limiter.slope", type = 1 } },
      __parameters = { filename = { vlaue = "slew_limit" }, ["limiter.dt"] = {}, ["limiter.slope"] = { value = 5 } },
      template_schmee = "slew_limit" },
  },
  io = { inputWires = {}, inputPorts = {}, outputWires = {}, outputPorts = {} },
  connections = {},
}
