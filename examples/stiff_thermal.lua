-- An electric oven warming up: a light heating element, the heavy oven load, and a fast
-- thermocouple reading the load's temperature. Time constants from 0.01 s (sensor) to
-- over an hour (the load losing heat to the room) make the system stiff: an explicit
-- solver must take steps below 0.02 s for the whole hour just to stay stable, while the
-- CVODE BDF solver crosses it in a few hundred steps of up to a minute.
--
--   element  Th' = P/Ch - (k/Ch) (Th - Ta)           P/Ch = 40 K/s, k/Ch = 0.4 /s
--   load     Ta' = (k/Ca) (Th - Ta) - (l/Ca) (Ta - T0)   k/Ca = 0.001 /s, l/Ca = 0.00025 /s
--   sensor   Ts' = (Ta - Ts) / 0.01 s
--
-- Everything starts at the room temperature T0 = 20 C; "start" loads the initial values
-- at t = 0. The load settles towards T0 + P/l = 420 C.
--
-- Run:  vandrel run examples/stiff_thermal.lua --until 3600 --every 60
simulation_scheme = {
  blocks = {
    -- [0]
    { __name = "params", __type = "wBlockConstantsDescriptor",
      values = { { name = "heating", type = 1 }, { name = "room", type = 1 } },
      __parameters = { heating = { value = 40 }, room = { value = 20 } } },
    -- [1] element: heating minus what flows into the load
    { __name = "element_rate", __type = "wBlockSummatorDescriptor<double>", __parameters = {},
      inputs = { { name = "heating", coeff = 1 }, { name = "element", coeff = -0.4 }, { name = "load", coeff = 0.4 } } },
    -- [2] load: gain from the element minus the loss to the room
    { __name = "load_rate", __type = "wBlockSummatorDescriptor<double>", __parameters = {},
      inputs = {
        { name = "element", coeff = 0.001 }, { name = "load", coeff = -0.00125 }, { name = "room", coeff = 0.00025 },
      } },
    -- [3] sensor: first-order lag of 0.01 s behind the load
    { __name = "sensor_rate", __type = "wBlockSummatorDescriptor<double>", __parameters = {},
      inputs = { { name = "load", coeff = 100 }, { name = "sensor", coeff = -100 } } },
    -- [4], [5], [6]
    { __name = "element", __type = "wBlockIntegratorDescriptor<double>", __parameters = {} },
    { __name = "load", __type = "wBlockIntegratorDescriptor<double>", __parameters = {} },
    { __name = "sensor", __type = "wBlockIntegratorDescriptor<double>", __parameters = {} },
    -- [7] sends true once at t = 0, which loads the initial temperatures; then only ticks
    -- every minute, which is when the command-line host can print a row
    { __name = "start", __type = "wBlockDelayTriggerDescriptor",
      __parameters = { dt = { value = 60 }, enabled = { value = false }, delay_time = { value = 0 } } },
  },
  solver = { __type = "wSolverCvodeDescriptor", H = 60, rtol = 1e-06, atol = 1e-06 },
  io = {
    inputWires = { { name = "element", type = 2 }, { name = "load", type = 2 }, { name = "sensor", type = 2 } },
    inputPorts = {},
    outputWires = {},
    outputPorts = {},
  },
  connections = {
    { output_block = 0, output_lead = "heating", input_block = 1, input_lead = "heating", port = false },
    { output_block = 4, output_lead = "output", input_block = 1, input_lead = "element", port = false },
    { output_block = 5, output_lead = "output", input_block = 1, input_lead = "load", port = false },
    { output_block = 4, output_lead = "output", input_block = 2, input_lead = "element", port = false },
    { output_block = 5, output_lead = "output", input_block = 2, input_lead = "load", port = false },
    { output_block = 0, output_lead = "room", input_block = 2, input_lead = "room", port = false },
    { output_block = 5, output_lead = "output", input_block = 3, input_lead = "load", port = false },
    { output_block = 6, output_lead = "output", input_block = 3, input_lead = "sensor", port = false },
    { output_block = 1, output_lead = "output", input_block = 4, input_lead = "input", port = false },
    { output_block = 2, output_lead = "output", input_block = 5, input_lead = "input", port = false },
    { output_block = 3, output_lead = "output", input_block = 6, input_lead = "input", port = false },
    { output_block = 0, output_lead = "room", input_block = 4, input_lead = "output.initial", port = false },
    { output_block = 0, output_lead = "room", input_block = 5, input_lead = "output.initial", port = false },
    { output_block = 0, output_lead = "room", input_block = 6, input_lead = "output.initial", port = false },
    { output_block = 7, output_lead = "timed_out", input_block = -665, input_lead = "reset_diff_state", port = true },
    { output_block = 4, output_lead = "output", input_block = -666, input_lead = "element", port = false },
    { output_block = 5, output_lead = "output", input_block = -666, input_lead = "load", port = false },
    { output_block = 6, output_lead = "output", input_block = -666, input_lead = "sensor", port = false },
  },
}
