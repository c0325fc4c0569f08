-- Discrete PI speed control of a motor, sampled every 20 ms, with a setpoint profile.
--
-- The motor is a first-order lag: speed' = (10 * u - speed) / 0.5 (rpm, u in volts).
-- The controller samples the speed every 20 ms (a Ramp with a huge slope is a sample and
-- hold), computes u = 0.3 e + integral with integral += 1.0 * 0.02 * e per sample, and
-- limits u to 0 .. 12 V. The drive is enabled 0.2 s after start ("enable", a delay
-- trigger wire): the enable flag becomes the weight of the command in an AvgVal block,
-- which then passes u when the weight is 1 and gives 0 when it is 0.
--
-- The setpoint climbs from 0 towards the reference speed at K_t rpm/s ("profile"). The
-- reference speed and the climb rate are left open in this file: they come from the
-- overrides file, so the same scheme serves several test cases.
--
-- Run:  vandrel run examples/speed_control.lua --overrides examples/speed_control.overrides.lua \
--         --until 6 --every 0.1 --plot speed_control.svg
simulation_scheme = {
  blocks = {
    -- [0] reference speed (rpm): open, from the overrides
    { __name = "targets", __type = "wBlockConstantsDescriptor",
      values = {
        { name = "speed_ref", type = 1 }, { name = "u_min", type = 1 }, { name = "u_max", type = 1 },
        { name = "on", type = 4 }, { name = "zero", type = 1 },
      },
      __parameters = {
        speed_ref = {}, u_min = { value = 0 }, u_max = { value = 12 }, on = { value = true }, zero = { value = 0 },
      } },
    -- [1] setpoint profile: from 0 towards speed_ref at K_t rpm/s (K_t from the overrides)
    { __name = "profile", __type = "wBlockGo2doubleOntimerDescriptor",
      __parameters = {
        dt = { value = 0.02 }, K_t = {}, use_start_val = { value = true }, start_val = { value = 0 },
        activate_by_port = { value = false }, loop = { value = false },
      } },
    -- [2] sampled speed
    { __name = "sampled", __type = "wBlockRampDescriptor",
      __parameters = { dt = { value = 0.02 }, slope = { value = 1e12 } } },
    -- [3] error
    { __name = "error", __type = "wBlockSummatorDescriptor<double>", __parameters = {},
      inputs = { { name = "r", coeff = 1 }, { name = "y", coeff = -1 } } },
    -- [4] next integral: integral + Ki * Ts * e, and [5] the integral held between samples
    { __name = "next_integral", __type = "wBlockSummatorDescriptor<double>", __parameters = {},
      inputs = { { name = "i", coeff = 1 }, { name = "e", coeff = 0.02 } } },
    { __name = "integral", __type = "wBlockRampDescriptor",
      __parameters = { dt = { value = 0.02 }, slope = { value = 1e12 } } },
    -- [6] u = Kp e + integral
    { __name = "pi", __type = "wBlockSummatorDescriptor<double>", __parameters = {},
      inputs = { { name = "e", coeff = 0.3 }, { name = "i", coeff = 1 } } },
    -- [7], [8] limits
    { __name = "not_below", __type = "wBlockMaxValDescriptor<double>", __parameters = {},
      inputs = { { name = "u" }, { name = "u_on" }, { name = "lo" }, { name = "lo_on" } } },
    { __name = "limited", __type = "wBlockMinValDescriptor<double>", __parameters = {},
      inputs = { { name = "u" }, { name = "u_on" }, { name = "hi" }, { name = "hi_on" } } },
    -- [9] drive enable after 0.2 s, [10] as an integer weight, [11] the gated command
    { __name = "enable", __type = "wBlockDelayTriggerWireDescriptor",
      __parameters = { dt = { value = 0.02 }, delay_par = { value = 0.2 } } },
    { __name = "enable_weight", __type = "wBlockI2ODescriptor<bool CMA int>", __parameters = {} },
    { __name = "command", __type = "wBlockAvgerageValDescriptor<double>", __parameters = {},
      inputs = { { name = "u" }, { name = "w" } } },
    -- [12] motor: speed rate (10 u - speed) / 0.5, and [13] the speed
    { __name = "motor", __type = "wBlockSummatorDescriptor<double>", __parameters = {},
      inputs = { { name = "u", coeff = 20 }, { name = "speed", coeff = -2 } } },
    { __name = "speed", __type = "wBlockIntegratorDescriptor<double>", __parameters = {} },
  },
  solver = { __type = "wSolverExplEulerDescriptor", H = 0.001 },
  io = {
    inputWires = {
      { name = "speed", type = 2 }, { name = "setpoint", type = 2 }, { name = "command", type = 2 },
      { name = "enabled", type = 1 },
    },
    inputPorts = {},
    outputWires = {},
    outputPorts = {},
  },
  connections = {
    { output_block = 0, output_lead = "speed_ref", input_block = 1, input_lead = "target", port = false },
    { output_block = 13, output_lead = "output", input_block = 2, input_lead = "target", port = false },
    { output_block = 1, output_lead = "output", input_block = 3, input_lead = "r", port = false },
    { output_block = 2, output_lead = "output", input_block = 3, input_lead = "y", port = false },
    { output_block = 5, output_lead = "output", input_block = 4, input_lead = "i", port = false },
    { output_block = 3, output_lead = "output", input_block = 4, input_lead = "e", port = false },
    { output_block = 4, output_lead = "output", input_block = 5, input_lead = "target", port = false },
    { output_block = 3, output_lead = "output", input_block = 6, input_lead = "e", port = false },
    { output_block = 5, output_lead = "output", input_block = 6, input_lead = "i", port = false },
    { output_block = 6, output_lead = "output", input_block = 7, input_lead = "u", port = false },
    { output_block = 0, output_lead = "on", input_block = 7, input_lead = "u_on", port = false },
    { output_block = 0, output_lead = "u_min", input_block = 7, input_lead = "lo", port = false },
    { output_block = 0, output_lead = "on", input_block = 7, input_lead = "lo_on", port = false },
    { output_block = 7, output_lead = "output", input_block = 8, input_lead = "u", port = false },
    { output_block = 0, output_lead = "on", input_block = 8, input_lead = "u_on", port = false },
    { output_block = 0, output_lead = "u_max", input_block = 8, input_lead = "hi", port = false },
    { output_block = 0, output_lead = "on", input_block = 8, input_lead = "hi_on", port = false },
    { output_block = 9, output_lead = "triggered", input_block = 10, input_lead = "input", port = false },
    { output_block = 8, output_lead = "output", input_block = 11, input_lead = "u", port = false },
    { output_block = 10, output_lead = "output", input_block = 11, input_lead = "w", port = false },
    { output_block = 11, output_lead = "output", input_block = 12, input_lead = "u", port = false },
    { output_block = 13, output_lead = "output", input_block = 12, input_lead = "speed", port = false },
    { output_block = 12, output_lead = "output", input_block = 13, input_lead = "input", port = false },
    { output_block = 0, output_lead = "zero", input_block = 13, input_lead = "output.initial", port = false },
    { output_block = 13, output_lead = "output", input_block = -666, input_lead = "speed", port = false },
    { output_block = 1, output_lead = "output", input_block = -666, input_lead = "setpoint", port = false },
    { output_block = 11, output_lead = "output", input_block = -666, input_lead = "command", port = false },
    { output_block = 9, output_lead = "triggered", input_block = -666, input_lead = "enabled", port = false },
  },
}
