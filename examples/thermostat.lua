-- Room thermostat with hysteresis, built from logic, conversions and timers.
--
-- The room loses heat to 5 degC outside with a time constant of one hour; the heater
-- adds 0.005 K/s while on. The heater switches on below 19.5 degC and stays on until the
-- room is above 20.5 degC. The latch needs memory: "memory" is a Ramp with a huge slope,
-- which simply copies its input once per second (a unit delay), so the loop
-- heater_on -> memory -> was_on -> keep_on -> heater_on goes through a discrete block.
-- "long_heating" raises the alarm when the heater has run without a break for 30 minutes.
--
--   T' = (5 - T) / 3600 + 0.005 * heater,   T(0) = 15 degC
--
-- Run:  vandrel run examples/thermostat.lua --until 14400 --every 60 --plot thermostat.png
simulation_scheme = {
  blocks = {
    -- [0]
    { __name = "params", __type = "wBlockConstantsDescriptor",
      values = {
        { name = "T_out", type = 1 }, { name = "T0", type = 1 },
        { name = "lo", type = 1 }, { name = "hi", type = 1 },
      },
      __parameters = {
        T_out = { value = 5 }, T0 = { value = 15 }, lo = { value = 19.5 }, hi = { value = 20.5 },
      } },
    -- [1], [2] positive when too cold / too hot
    { __name = "below", __type = "wBlockSummatorDescriptor<double>", __parameters = {},
      inputs = { { name = "lo", coeff = 1 }, { name = "T", coeff = -1 } } },
    { __name = "above", __type = "wBlockSummatorDescriptor<double>", __parameters = {},
      inputs = { { name = "T", coeff = 1 }, { name = "hi", coeff = -1 } } },
    -- [3], [4] as booleans (true when > 0)
    { __name = "is_cold", __type = "wBlockI2ODescriptor<double CMA bool>", __parameters = {} },
    { __name = "is_hot", __type = "wBlockI2ODescriptor<double CMA bool>", __parameters = {} },
    -- [5], [6], [7] heater_on = is_cold or (was_on and not is_hot)
    { __name = "not_hot", __type = "wBlockNOTDescriptor", __parameters = {} },
    { __name = "keep_on", __type = "wBlockANDDescriptor", __parameters = {},
      inputs = { { name = "was_on" }, { name = "not_hot" } } },
    { __name = "heater_on", __type = "wBlockORDescriptor", __parameters = {},
      inputs = { { name = "is_cold" }, { name = "keep_on" } } },
    -- [8] heater as 0 / 1
    { __name = "heater_level", __type = "wBlockI2ODescriptor<bool CMA double>", __parameters = {} },
    -- [9] unit delay of one second: the latch's memory
    { __name = "memory", __type = "wBlockRampDescriptor",
      __parameters = { dt = { value = 1 }, slope = { value = 1e12 } } },
    -- [10]
    { __name = "was_on", __type = "wBlockI2ODescriptor<double CMA bool>", __parameters = {} },
    -- [11] room temperature rate
    { __name = "room", __type = "wBlockSummatorDescriptor<double>", __parameters = {},
      inputs = {
        { name = "T_out", coeff = 1 / 3600 }, { name = "T", coeff = -1 / 3600 },
        { name = "heat", coeff = 0.005 },
      } },
    -- [12]
    { __name = "temperature", __type = "wBlockIntegratorDescriptor<double>", __parameters = {} },
    -- [13] alarm: heater on for 30 minutes without a break
    { __name = "long_heating", __type = "wBlockFlagOnSignalTimerDescriptor",
      __parameters = {
        dt = { value = 1 }, activation_check_delay = { value = 0 }, flag_timer = { value = 1800 },
        control_signal = { value = true }, activate_by_not_control_signal = { value = false },
        activate_by_port = { value = false },
      } },
    -- [14] sends true once at t = 0: loads the temperature from T0
    { __name = "start", __type = "wBlockDelayTriggerDescriptor",
      __parameters = { dt = { value = 86400 }, enabled = { value = false }, delay_time = { value = 0 } } },
  },
  solver = { __type = "wSolverExplEulerDescriptor", H = 1 },
  io = {
    inputWires = {
      { name = "temperature", type = 2 }, { name = "heater", type = 1 }, { name = "alarm", type = 1 },
    },
    inputPorts = {},
    outputWires = {},
    outputPorts = {},
  },
  connections = {
    { output_block = 0, output_lead = "lo", input_block = 1, input_lead = "lo", port = false },
    { output_block = 12, output_lead = "output", input_block = 1, input_lead = "T", port = false },
    { output_block = 12, output_lead = "output", input_block = 2, input_lead = "T", port = false },
    { output_block = 0, output_lead = "hi", input_block = 2, input_lead = "hi", port = false },
    { output_block = 1, output_lead = "output", input_block = 3, input_lead = "input", port = false },
    { output_block = 2, output_lead = "output", input_block = 4, input_lead = "input", port = false },
    { output_block = 4, output_lead = "output", input_block = 5, input_lead = "input", port = false },
    { output_block = 10, output_lead = "output", input_block = 6, input_lead = "was_on", port = false },
    { output_block = 5, output_lead = "output", input_block = 6, input_lead = "not_hot", port = false },
    { output_block = 3, output_lead = "output", input_block = 7, input_lead = "is_cold", port = false },
    { output_block = 6, output_lead = "output", input_block = 7, input_lead = "keep_on", port = false },
    { output_block = 7, output_lead = "output", input_block = 8, input_lead = "input", port = false },
    { output_block = 8, output_lead = "output", input_block = 9, input_lead = "target", port = false },
    { output_block = 9, output_lead = "output", input_block = 10, input_lead = "input", port = false },
    { output_block = 0, output_lead = "T_out", input_block = 11, input_lead = "T_out", port = false },
    { output_block = 12, output_lead = "output", input_block = 11, input_lead = "T", port = false },
    { output_block = 8, output_lead = "output", input_block = 11, input_lead = "heat", port = false },
    { output_block = 11, output_lead = "output", input_block = 12, input_lead = "input", port = false },
    { output_block = 0, output_lead = "T0", input_block = 12, input_lead = "output.initial", port = false },
    { output_block = 7, output_lead = "output", input_block = 13, input_lead = "signal", port = false },
    { output_block = 14, output_lead = "timed_out", input_block = -665, input_lead = "reset_diff_state", port = true },
    { output_block = 12, output_lead = "output", input_block = -666, input_lead = "temperature", port = false },
    { output_block = 7, output_lead = "output", input_block = -666, input_lead = "heater", port = false },
    { output_block = 13, output_lead = "timer_flag", input_block = -666, input_lead = "alarm", port = false },
  },
}
