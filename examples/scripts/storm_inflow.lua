-- Inflow into the wet well: a dry-weather base flow plus a storm, a bell-shaped peak of
-- ${peak_flow} m^3/s at t = ${t_peak} s, about ${width} s wide. Updated every ${dt} s.
function init() end

function run(t)
  local x = (t - ${t_peak}) / ${width}
  outputs.q_in(${base_flow} + ${peak_flow} * math.exp(-x * x))
  return ${dt}
end
