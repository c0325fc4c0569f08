-- Tank level control with a ramped setpoint.
--
-- A tank of 2 m^2 cross-section drains through an outlet (q_out = 0.5 * h m^3/s) and is
-- filled by a pump. A proportional controller drives the pump from the level error,
-- limited to 0 .. 1.2 m^3/s; the setpoint ramps from 0 to 1.5 m at 0.05 m/s. The level
-- starts at 0.2 m: the "start" block resets the integrator from its initial value.
--
--   level' = (q_in - 0.5 * level) / 2,   q_in = clamp(2.5 * (setpoint - level), 0, 1.2)
--
-- The setpoint moves in steps every 0.1 s and the level is smooth in between, so classic
-- Runge-Kutta 4 with H = 0.1 suits it: one fourth-order step per setpoint step, landing
-- on each one, where explicit Euler needed steps of 0.01 s for the same accuracy.
--
-- Run:  vandrel run examples/tank_level.lua --until 60 --every 1 --plot tank_level.png
simulation_scheme = {
  blocks = {
    -- [0] constants of the plant and controller
    { __name = "params", __type = "wBlockConstantsDescriptor",
      values = {
        { name = "sp_final", type = 1 }, { name = "h0", type = 1 },
        { name = "q_min", type = 1 }, { name = "q_max", type = 1 }, { name = "on", type = 4 },
      },
      __parameters = {
        sp_final = { value = 1.5 }, h0 = { value = 0.2 },
        q_min = { value = 0 }, q_max = { value = 1.2 }, on = { value = true },
      } },
    -- [1] setpoint: moves towards sp_final by at most 0.05 m/s, updated every 0.1 s
    { __name = "setpoint", __type = "wBlockRampDescriptor",
      __parameters = { dt = { value = 0.1 }, slope = { value = 0.05 } } },
    -- [2] level error
    { __name = "error", __type = "wBlockSummatorDescriptor<double>", __parameters = {},
      inputs = { { name = "sp", coeff = 1 }, { name = "h", coeff = -1 } } },
    -- [3] proportional controller, gain 2.5 (m^3/s per m)
    { __name = "controller", __type = "wBlockSummatorDescriptor<double>", __parameters = {},
      inputs = { { name = "e", coeff = 2.5 } } },
    -- [4], [5] pump limits: max(u, q_min), then min(.., q_max)
    { __name = "not_below", __type = "wBlockMaxValDescriptor<double>", __parameters = {},
      inputs = { { name = "u" }, { name = "u_on" }, { name = "lo" }, { name = "lo_on" } } },
    { __name = "pump", __type = "wBlockMinValDescriptor<double>", __parameters = {},
      inputs = { { name = "u" }, { name = "u_on" }, { name = "hi" }, { name = "hi_on" } } },
    -- [6] level rate: (q_in - 0.5 h) / 2
    { __name = "balance", __type = "wBlockSummatorDescriptor<double>", __parameters = {},
      inputs = { { name = "q_in", coeff = 0.5 }, { name = "h", coeff = -0.25 } } },
    -- [7] the level itself
    { __name = "level", __type = "wBlockIntegratorDescriptor<double>", __parameters = {} },
    -- [8] sends true once at t = 0: loads the integrator from its initial value
    { __name = "start", __type = "wBlockDelayTriggerDescriptor",
      __parameters = { dt = { value = 3600 }, enabled = { value = false }, delay_time = { value = 0 } } },
  },
  solver = { __type = "wSolverRK4Descriptor", H = 0.1 },
  io = {
    inputWires = {
      { name = "level", type = 2 }, { name = "setpoint", type = 2 }, { name = "pump", type = 2 },
    },
    inputPorts = {},
    outputWires = {},
    outputPorts = {},
  },
  connections = {
    { output_block = 0, output_lead = "sp_final", input_block = 1, input_lead = "target", port = false },
    { output_block = 1, output_lead = "output", input_block = 2, input_lead = "sp", port = false },
    { output_block = 7, output_lead = "output", input_block = 2, input_lead = "h", port = false },
    { output_block = 2, output_lead = "output", input_block = 3, input_lead = "e", port = false },
    { output_block = 3, output_lead = "output", input_block = 4, input_lead = "u", port = false },
    { output_block = 0, output_lead = "on", input_block = 4, input_lead = "u_on", port = false },
    { output_block = 0, output_lead = "q_min", input_block = 4, input_lead = "lo", port = false },
    { output_block = 0, output_lead = "on", input_block = 4, input_lead = "lo_on", port = false },
    { output_block = 4, output_lead = "output", input_block = 5, input_lead = "u", port = false },
    { output_block = 0, output_lead = "on", input_block = 5, input_lead = "u_on", port = false },
    { output_block = 0, output_lead = "q_max", input_block = 5, input_lead = "hi", port = false },
    { output_block = 0, output_lead = "on", input_block = 5, input_lead = "hi_on", port = false },
    { output_block = 5, output_lead = "output", input_block = 6, input_lead = "q_in", port = false },
    { output_block = 7, output_lead = "output", input_block = 6, input_lead = "h", port = false },
    { output_block = 6, output_lead = "output", input_block = 7, input_lead = "input", port = false },
    { output_block = 0, output_lead = "h0", input_block = 7, input_lead = "output.initial", port = false },
    { output_block = 8, output_lead = "timed_out", input_block = -665, input_lead = "reset_diff_state", port = true },
    { output_block = 7, output_lead = "output", input_block = -666, input_lead = "level", port = false },
    { output_block = 1, output_lead = "output", input_block = -666, input_lead = "setpoint", port = false },
    { output_block = 5, output_lead = "output", input_block = -666, input_lead = "pump", port = false },
  },
}
