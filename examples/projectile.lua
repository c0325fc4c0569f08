-- A ball thrown in 3-D with gravity and linear air drag, built from vector blocks and
-- vector integrators.
--
-- The ball leaves 1.5 m above ground at 25 m/s, 37 degrees up, heading 30 degrees left of
-- east: v0 = (17.32, 10, 15) m/s. "start" loads the initial values at t = 0 (they come
-- from the constants, whose wires hold their values from the start). "frame" turns the
-- position back by 30 degrees about the vertical into the launch frame, giving the
-- downrange and crossrange distances. An oscilloscope records the position every 0.1 s
-- (write it out with --scope-dir).
--
--   v' = g - 0.05 v,   x' = v,   g = (0, 0, -9.81) m/s^2
--
-- The motion is smooth, so the adaptive Dormand-Prince solver suits it: it takes a few
-- steps per 0.1 s recording interval and keeps the error within its tolerances, where
-- explicit Euler needed a thousand steps per second and still drifted.
--
-- Run:  vandrel run examples/projectile.lua --until 3 --every 0.1 --scope-dir scopes
simulation_scheme = {
  blocks = {
    -- [0]
    { __name = "params", __type = "wBlockConstantsDescriptor",
      values = { { name = "g", type = 3 }, { name = "v0", type = 3 }, { name = "x0", type = 3 } },
      __parameters = {
        g = { value = { 0, 0, -9.81 } }, v0 = { value = { 17.320508075688775, 10, 15 } }, x0 = { value = { 0, 0, 1.5 } },
      } },
    -- [1] position in the launch frame: turned back by 30 degrees (0.5236 rad) about z
    { __name = "frame", __type = "wVec3dModDescriptor",
      __parameters = {
        mult_x = { value = 1 }, mult_y = { value = 1 }, mult_z = { value = 1 },
        rotate_x = { value = 0 }, rotate_y = { value = 0 }, rotate_z = { value = -0.5235987755982988 },
      } },
    -- [2] acceleration g - 0.05 v
    { __name = "acceleration", __type = "wBlockSummatorDescriptor<Vec3d>", __parameters = {},
      inputs = { { name = "g", coeff = 1 }, { name = "v", coeff = -0.05 } } },
    -- [3], [4]
    { __name = "velocity", __type = "wBlockIntegratorDescriptor<Vec3d>", __parameters = {} },
    { __name = "position", __type = "wBlockIntegratorDescriptor<Vec3d>", __parameters = {} },
    -- [5] height above ground and [6] vertical speed
    { __name = "altitude", __type = "wBlockVectorPickerDescriptor", __parameters = { index = { value = 2 } } },
    { __name = "climb", __type = "wBlockVectorPickerDescriptor", __parameters = { index = { value = 2 } } },
    -- [7] downrange and crossrange distances (m)
    { __name = "ranges", __type = "wVec3dToDoubleDescriptor",
      __parameters = { mult_x = { value = 1 }, mult_y = { value = 1 }, mult_z = { value = 0 } } },
    -- [8]
    { __name = "scope", __type = "wBlockOscilloscopeDescriptor",
      __parameters = { dt = { value = 0.1 }, capacity = { value = 1000 } },
      inputs = { { name = "position", type = 3 }, { name = "climb", type = 2 } } },
    -- [9] sends true once at t = 0: loads the initial velocity and position
    { __name = "start", __type = "wBlockDelayTriggerDescriptor",
      __parameters = { dt = { value = 3600 }, enabled = { value = false }, delay_time = { value = 0 } } },
  },
  solver = { __type = "wSolverDopri5Descriptor", H = 0.1, rtol = 1e-08, atol = 1e-08 },
  io = {
    inputWires = {
      { name = "position", type = 3 }, { name = "altitude", type = 2 }, { name = "climb", type = 2 },
      { name = "downrange", type = 2 }, { name = "crossrange", type = 2 },
    },
    inputPorts = {},
    outputWires = {},
    outputPorts = {},
  },
  connections = {
    { output_block = 4, output_lead = "output", input_block = 1, input_lead = "vec", port = false },
    { output_block = 0, output_lead = "g", input_block = 2, input_lead = "g", port = false },
    { output_block = 3, output_lead = "output", input_block = 2, input_lead = "v", port = false },
    { output_block = 2, output_lead = "output", input_block = 3, input_lead = "input", port = false },
    { output_block = 0, output_lead = "v0", input_block = 3, input_lead = "output.initial", port = false },
    { output_block = 3, output_lead = "output", input_block = 4, input_lead = "input", port = false },
    { output_block = 0, output_lead = "x0", input_block = 4, input_lead = "output.initial", port = false },
    { output_block = 4, output_lead = "output", input_block = 5, input_lead = "input", port = false },
    { output_block = 3, output_lead = "output", input_block = 6, input_lead = "input", port = false },
    { output_block = 1, output_lead = "mvec", input_block = 7, input_lead = "vec", port = false },
    { output_block = 4, output_lead = "output", input_block = 8, input_lead = "position", port = false },
    { output_block = 6, output_lead = "output", input_block = 8, input_lead = "climb", port = false },
    { output_block = 9, output_lead = "timed_out", input_block = -665, input_lead = "reset_diff_state", port = true },
    { output_block = 4, output_lead = "output", input_block = -666, input_lead = "position", port = false },
    { output_block = 5, output_lead = "output", input_block = -666, input_lead = "altitude", port = false },
    { output_block = 6, output_lead = "output", input_block = -666, input_lead = "climb", port = false },
    { output_block = 7, output_lead = "x", input_block = -666, input_lead = "downrange", port = false },
    { output_block = 7, output_lead = "y", input_block = -666, input_lead = "crossrange", port = false },
  },
}
